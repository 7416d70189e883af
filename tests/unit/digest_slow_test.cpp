// Digests of files around the size at which the standard library's own file stream reports nothing available.
#include "dataupdate/updater.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <cstdint>
#include <string>

namespace tarn::dataupdate {
namespace {

using testing::Pair;

struct SparseFile {
	const char* name;
	std::uintmax_t bytes;
	const char* digest; // As "openssl dgst -sha384" tells it.
};

void PrintTo(const SparseFile& file, std::ostream* out) {
	*out << file.bytes << " bytes";
}

constexpr std::uintmax_t kFourGiB = 4ULL << 30U;

class LargeFileTest : public testing::TestWithParam<SparseFile> {};

TEST_P(LargeFileTest, HasTheRightDigest) {
	const test::TemporaryDirectory directory;
	test::WriteFile(directory / "f", "");
	ASSERT_EQ(truncate((directory / "f").c_str(), static_cast<off_t>(GetParam().bytes)), 0);
	EXPECT_THAT(CalculateStatus({"f"}, directory.Path()), ElementsAre(Pair("f", FileStatus(GetParam().digest))));
}

INSTANTIATE_TEST_SUITE_P(Sizes, LargeFileTest,
    testing::Values(SparseFile{"OneByteLessThan4GiB", kFourGiB - 1,
                        "3e55c30ca2619b5ecd69c34dbb7275ef3e8e870c13ade4af92df74549a8e9db7"
                        "bfc27516c98fa44813f2d0b7de5e49b7"},
        SparseFile{"4GiB", kFourGiB,
            "92484b752d7078365893d7109ce8cea17f6a4819f5cd0d7b57616f51b48fe704"
            "782a007699f95f6dabbd6fd1da927f73"},
        SparseFile{"OneByteMoreThan4GiB", kFourGiB + 1,
            "bdf90c9ced0b309792fb47dc6edfd20bf7be401080c97427e8cc19842773da77"
            "c91b21ec303371a0e207a224892a131d"}),
    [](const auto& file) { return std::string(file.param.name); });

} // namespace
} // namespace tarn::dataupdate
