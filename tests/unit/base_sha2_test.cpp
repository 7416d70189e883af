#include "base/sha2.h"
#include "base/text.h"

#include <gtest/gtest.h>

namespace tarn {

namespace {

// As "openssl dgst" tells them.
constexpr char k256OfNothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char k256OfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char k384OfNothing[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b95b";
constexpr char k384OfAbc[] =
    "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7";

template<typename Sha>
std::string HexOf(std::string_view bytes) {
	const auto digest = Sha::Of(bytes);
	return Hex(digest.data(), digest.size());
}

TEST(Sha2, IsTheStandardDigest) {
	EXPECT_EQ(HexOf<Sha256>(""), k256OfNothing);
	EXPECT_EQ(HexOf<Sha256>("abc"), k256OfAbc);
	EXPECT_EQ(HexOf<Sha384>(""), k384OfNothing);
	EXPECT_EQ(HexOf<Sha384>("abc"), k384OfAbc);
}

TEST(Sha2, DoesNotDependOnThePieces) {
	Sha256 small;
	Sha384 large;
	for (const char* piece : {"", "a", "", "bc"}) {
		small.Add(piece);
		large.Add(piece);
	}
	EXPECT_EQ(small.FinishHex(), k256OfAbc);
	EXPECT_EQ(large.FinishHex(), k384OfAbc);
}

} // namespace

} // namespace tarn
