// The readers below the decoder, and the application header.
#include "decoder/bytes.h"
#include "decoder/patch_header.h"
#include "decoder/readers.h"
#include "temporary_directory.h"
#include "vcdiff_builder.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <random>

namespace tarn::decoder::test {

namespace {

/** Counts what is read. */
class CountedBytes : public ReadableBytes {
public:
	explicit CountedBytes(std::size_t size) : name_("counted"), size_(size) {}

	const std::string& Name() const override { return name_; }
	std::uint64_t Size() const override { return size_; }
	void ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const override {
		ASSERT_LE(offset, size_);
		ASSERT_LE(length, size_ - offset);
		for (std::size_t place = 0; place < length; ++place) {
			to[place] = At(offset + place);
		}
		++reads;
		bytes_read += length;
	}
	static Byte At(std::uint64_t place) { return static_cast<Byte>(place * 7 + (place >> 8U)); }

	mutable unsigned reads = 0;
	mutable std::uint64_t bytes_read = 0;

private:
	std::string name_;
	std::uint64_t size_;
};

constexpr std::size_t kMebibyte = 1U << 20U;

void ExpectRead(ReadAhead& reader, std::uint64_t offset, std::size_t length) {
	std::vector<Byte> got(length);
	reader.Read(offset, got.data(), length);
	for (std::size_t place = 0; place < length; ++place) {
		ASSERT_EQ(got[place], CountedBytes::At(offset + place)) << offset << " + " << place;
	}
}

TEST(VcdiffReadAhead, ServesAnyRead) {
	const CountedBytes bytes(kMebibyte);
	ReadAhead reader(bytes, 1U << 16U);
	std::mt19937 chance(1);
	for (unsigned round = 0; round < 3000; ++round) {
		const std::size_t length = chance() % (chance() % 4 == 0 ? 100'000 : 300);
		ExpectRead(reader, chance() % (kMebibyte - length + 1), length);
	}
	ExpectRead(reader, kMebibyte, 0);
	ExpectRead(reader, kMebibyte - 1, 1);
}

TEST(VcdiffReadAhead, MakesFewCallsOfShortReadsThatGoForwards) {
	const CountedBytes bytes(kMebibyte);
	ReadAhead reader(bytes, 1U << 16U);
	for (std::uint64_t offset = 0; offset + 150 < kMebibyte; offset += 200) {
		ExpectRead(reader, offset, 150);
	}
	EXPECT_LE(bytes.reads, 25U);
	EXPECT_LE(bytes.bytes_read, kMebibyte);
}

TEST(VcdiffReadAhead, ReadsLittleMoreThanWantedWhenReadsJump) {
	const CountedBytes bytes(kMebibyte);
	ReadAhead reader(bytes, 1U << 16U);
	for (std::uint64_t place = 0; place < 100; ++place) {
		ExpectRead(reader, (place * 479'001'599) % (kMebibyte - 10), 10);
	}
	EXPECT_LE(bytes.bytes_read, 100U * 2 * 4096);
}

TEST(VcdiffReadAhead, ReadsLongPiecesOnce) {
	const CountedBytes bytes(kMebibyte);
	ReadAhead reader(bytes, 1U << 16U);
	ExpectRead(reader, 0, kMebibyte / 2);
	ExpectRead(reader, kMebibyte / 2, kMebibyte / 2);
	EXPECT_EQ(bytes.reads, 2U);
	EXPECT_EQ(bytes.bytes_read, kMebibyte);
}

TEST(VcdiffSectionReader, ReadsTheSameWhateverItsBuffer) {
	const CountedBytes bytes(5000);
	for (const std::size_t buffer : {1U, 2U, 7U, 64U, 10'000U}) {
		SectionReader reader(bytes, buffer);
		reader.Open("section", 10, 4000);
		std::mt19937 chance(2);
		for (std::uint64_t place = 10; place < 4000;) {
			EXPECT_FALSE(reader.AtEnd());
			ASSERT_EQ(reader.Position(), place);
			ASSERT_EQ(reader.Remaining(), 4000 - place);
			std::vector<Byte> got(std::min<std::uint64_t>(chance() % 100, 4000 - place));
			reader.Read(got.data(), got.size());
			for (const Byte byte : got) {
				ASSERT_EQ(byte, CountedBytes::At(place++));
			}
			if (place < 4000) {
				ASSERT_EQ(reader.ReadByte(), CountedBytes::At(place++));
			}
		}
		EXPECT_TRUE(reader.AtEnd());
		EXPECT_THROW(reader.ReadByte(), DecodeError);
	}
}

TEST(VcdiffSectionReader, KeepsWhatItHoldsOfTheNextSection) {
	const CountedBytes bytes(5000);
	SectionReader reader(bytes, 1000);
	for (std::uint64_t begin = 0; begin < 900; begin += 100) {
		reader.Open("section", begin, begin + 50);
		EXPECT_EQ(reader.ReadByte(), CountedBytes::At(begin));
	}
	EXPECT_EQ(bytes.reads, 1U);
	reader.Open("section", 0, 2);
	EXPECT_EQ(reader.ReadByte(), CountedBytes::At(0));
	EXPECT_EQ(reader.ReadByte(), CountedBytes::At(1));
	EXPECT_THROW(reader.ReadByte(), DecodeError);
}

TEST(VcdiffSectionReader, ReadsIntegersUpTo64Bits) {
	const std::uint64_t values[] = {0, 1, 127, 128, 16383, 16384, 123456789, 0xffffffff, 0x100000000,
	    0x7fffffffffffffff, 0x8000000000000000, 0xffffffffffffffff};
	std::string text;
	for (const std::uint64_t value : values) {
		text += Integer(value);
	}
	const MemoryBytes bytes("integers", {text.begin(), text.end()});
	for (const std::size_t buffer : {1U, 3U, 100U}) {
		SectionReader reader(bytes, buffer);
		reader.Open("section", 0, bytes.Size());
		for (const std::uint64_t value : values) {
			EXPECT_EQ(reader.ReadInteger(), value);
		}
		EXPECT_TRUE(reader.AtEnd());
	}
}

TEST(VcdiffInteger, IsWrittenAsInTheStandard) {
	// The standard's example.
	EXPECT_EQ(Integer(123456789), Raw({0xba, 0xef, 0x9a, 0x15}));
}

TEST(VcdiffHash, IsTheCanonicalFormOfXxh3) {
	// Of nothing, as the algorithm's authors state it.
	EXPECT_EQ(ContentHash().Hex(), "99aa06d3014798d86001c324468d497f");
	std::vector<Byte> bytes(300'000);
	for (std::size_t place = 0; place < bytes.size(); ++place) {
		bytes[place] = CountedBytes::At(place);
	}
	ContentHash pieces;
	pieces.Update(bytes.data(), 0);
	pieces.Update(bytes.data(), 1);
	pieces.Update(bytes.data() + 1, 100'000);
	pieces.Update(bytes.data() + 100'001, bytes.size() - 100'001);
	const XXH128_hash_t whole = XXH3_128bits(bytes.data(), bytes.size());
	char text[33];
	std::snprintf(text, sizeof text, "%016lx%016lx", whole.high64, whole.low64);
	EXPECT_EQ(pieces.Hex(), text);
}

TEST(VcdiffApplicationHeader, IsMadeFromTwoFiles) {
	const tarn::test::TemporaryDirectory directory;
	tarn::test::WriteFile(directory / "source", "abc");
	const std::string target(1'000'000, 't');
	tarn::test::WriteFile(directory / "target", target);
	const std::string header = MakeApplicationHeader(directory / "source", directory / "target");
	EXPECT_EQ(header, PromiseOf("abc", target));
	EXPECT_EQ(header.substr(0, 19), "TARNVCD1 3 1000000 ");
	tarn::test::WriteFile(directory / "target", "");
	EXPECT_EQ(MakeApplicationHeader(directory / "source", directory / "target"),
	    "TARNVCD1 3 0 99aa06d3014798d86001c324468d497f");
}

TEST(VcdiffApplicationHeader, ReadsBackWhatItWrote) {
	const Promise promise = {0, 18446744073709551615U, "0123456789abcdef0123456789abcdef"};
	const std::optional<Promise> read = ParseApplicationHeader(FormatApplicationHeader(promise));
	ASSERT_TRUE(read);
	EXPECT_EQ(read->source_size, promise.source_size);
	EXPECT_EQ(read->target_size, promise.target_size);
	EXPECT_EQ(read->target_hash, promise.target_hash);
}

} // namespace

} // namespace tarn::decoder::test
