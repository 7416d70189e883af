#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/internal/digests_ahead.h"
#include "dataupdate/interruption.h"
#include "dataupdate/progress.h"
#include "dataupdate/updater.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::Optional;

constexpr std::size_t kFiles = 200;

/** With as many threads as the parameter says, whatever the machine has. */
class DigestsAheadTest : public testing::TestWithParam<unsigned> {
protected:
	DigestsAheadTest() { LimitDigestThreads(GetParam()); }
	~DigestsAheadTest() override {
		ForgetInterruption();
		LimitDigestThreads(0);
	}

	std::string Put(const std::string& name, const std::string& content) const {
		WriteFile(directory_ / name, content);
		return directory_ / name;
	}
	std::vector<std::string> PutMany() const {
		std::vector<std::string> paths;
		for (std::size_t i = 0; i < kFiles; ++i) {
			paths.push_back(Put(std::to_string(i), std::string(i * 100, 'x')));
		}
		return paths;
	}

	test::TemporaryDirectory directory_;
};

INSTANTIATE_TEST_SUITE_P(Threads, DigestsAheadTest, testing::Values(1, 2, 5));

TEST_P(DigestsAheadTest, ComeInTheOrderOfThePaths) {
	const std::vector<std::string> paths = PutMany();
	DigestsAhead digests(paths);
	for (const std::string& path : paths) {
		ASSERT_THAT(digests.Next(), Optional(FileSha384(path))) << path;
	}
}

TEST_P(DigestsAheadTest, AreNoneOfWhatIsMissing) {
	const std::string there = Put("there", "abc");
	DigestsAhead digests({directory_ / "missing", there, directory_ / "missing too"});
	EXPECT_EQ(digests.Next(), std::nullopt);
	EXPECT_THAT(digests.Next(), Optional(FileSha384(there)));
	EXPECT_EQ(digests.Next(), std::nullopt);
}

TEST_P(DigestsAheadTest, ThrowWhereTheFileThatFailsIsAskedFor) {
	fs::create_symlink("loop", directory_ / "loop");
	DigestsAhead digests({Put("before", "abc"), directory_ / "loop", Put("after", "abc")});
	EXPECT_TRUE(digests.Next());
	EXPECT_ANY_THROW(static_cast<void>(digests.Next()));
	EXPECT_TRUE(digests.Next());
}

TEST_P(DigestsAheadTest, NeedNotAllBeAskedFor) {
	DigestsAhead digests(PutMany());
	EXPECT_TRUE(digests.Next());
}

TEST_P(DigestsAheadTest, EndEarlyWhenAHostAsksForIt) {
	const std::vector<std::string> paths = PutMany();
	std::set<std::string> names(paths.begin(), paths.end());
	RequestInterruption();
	EXPECT_ANY_THROW(static_cast<void>(CalculateStatus(names, "/")));
}

TEST_P(DigestsAheadTest, LeaveNoActivityBehind) {
	const std::vector<std::string> paths = PutMany();
	const std::uint64_t before = CurrentActivity().bytes;
	static_cast<void>(CalculateStatus({paths.begin(), paths.end()}, "/"));
	EXPECT_EQ(CurrentActivity().phase, Phase::kIdle);
	EXPECT_EQ(CurrentActivity().bytes, before);
}

TEST_P(DigestsAheadTest, FindEachBadFileInOrder) {
	std::map<std::string, FileStatus> statuses;
	for (const std::string& path : PutMany()) {
		statuses.emplace(path, FileStatus(FileSha384(path)));
	}
	Put("100", "changed");
	fs::remove(directory_ / "7");
	EXPECT_THAT(FindBadFiles(statuses, "/"), ElementsAre(directory_ / "100", directory_ / "7"));
	EXPECT_FALSE(CheckStatus(statuses, "/"));
}

} // namespace
} // namespace tarn::dataupdate
