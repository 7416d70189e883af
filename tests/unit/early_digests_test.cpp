#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/early_digests.h"
#include "dataupdate/internal/file_digest.h"
#include "dataupdate/progress.h"
#include "dataupdate/updater.h"
#include "fake_system.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using testing::Optional;

constexpr std::size_t kLarge = std::size_t{1} << 20U;

/** With as many threads as the parameter says, whatever the machine has. */
class EarlyDigestsTest : public testing::TestWithParam<unsigned> {
protected:
	EarlyDigestsTest() { LimitDigestThreads(GetParam()); }
	~EarlyDigestsTest() override { LimitDigestThreads(0); }

	std::string Put(const std::string& name, char fill, std::size_t size = kLarge) const {
		WriteFile(directory_ / name, std::string(size, fill));
		return directory_ / name;
	}

	test::TemporaryDirectory directory_;
	EarlyDigests digests_;
};

INSTANTIATE_TEST_SUITE_P(Threads, EarlyDigestsTest, testing::Values(1, 2));

TEST_P(EarlyDigestsTest, AreOfTheFileWhereverItWasMoved) {
	const std::string copy = Put("copy", 'x');
	const std::string digest = FileSha384(copy);
	digests_.Begin(copy);
	fs::rename(copy, directory_ / "installed");
	Put("copy", 'y');
	EXPECT_EQ(digests_.Take(copy), std::nullopt) << "another file";
	EXPECT_THAT(digests_.Take(directory_ / "installed"), Optional(digest));
	EXPECT_EQ(digests_.Take(directory_ / "installed"), std::nullopt) << "told already";
}

TEST_P(EarlyDigestsTest, AreGivenUpWithTheWorkThatWantedThem) {
	constexpr std::uintmax_t kLongerThanAnybodyWaits = std::uintmax_t{1} << 43U;
	const std::string endless = Put("endless", 'x');
	fs::resize_file(endless, kLongerThanAnybodyWaits);
	EarlyDigests digests;
	const ActivityScope activity(Phase::kHash, "what is read");
	digests.Begin(endless);
	while (GetParam() > 1 && CurrentActivity().bytes == 0) {
		std::this_thread::yield();
	}
}

TEST_P(EarlyDigestsTest, AreNoneOfAFileThatWasWrittenToSince) {
	const std::string grown = Put("grown", 'x');
	digests_.Begin(grown);
	fs::resize_file(grown, kLarge + 1);
	EXPECT_EQ(digests_.Take(grown), std::nullopt);
}

TEST_P(EarlyDigestsTest, AreNoneOfAFileWhoseTimeWasChangedSince) {
	const std::string touched = Put("touched", 'x');
	digests_.Begin(touched);
	const std::array<timespec, 2> times = {timespec{1, 0}, timespec{1, 0}};
	ASSERT_EQ(utimensat(AT_FDCWD, touched.c_str(), times.data(), 0), 0);
	EXPECT_EQ(digests_.Take(touched), std::nullopt);
}

TEST_P(EarlyDigestsTest, AreNoneOfAFileThatCannotBeRead) {
	const std::string copy = Put("copy", 'x');
	test::FakeSystem system;
	system.Fail("open", EMFILE, 1, 1); // not for the one that holds the file
	digests_.Begin(copy);
	EXPECT_EQ(digests_.Take(copy), std::nullopt);
}

TEST_P(EarlyDigestsTest, AreOfAsManyFilesAsThreadsAreAllowed) {
	for (unsigned number = 0; number < GetParam(); ++number) {
		digests_.Begin(Put(std::to_string(number), 'x'));
	}
	digests_.Begin(Put("one more", 'x'));
	EXPECT_EQ(digests_.Take(directory_ / "one more"), std::nullopt);
	for (unsigned number = 0; number < GetParam(); ++number) {
		const std::string file = directory_ / std::to_string(number);
		EXPECT_THAT(digests_.Take(file), Optional(FileSha384(file)));
	}
}

TEST_P(EarlyDigestsTest, AreNoneOfWhatIsSmallOrNoFile) {
	const std::string small = Put("small", 'x', kLarge - 1);
	digests_.Begin(small);
	EXPECT_EQ(digests_.Take(small), std::nullopt);
	fs::create_symlink(Put("large", 'x'), directory_ / "link");
	digests_.Begin(directory_ / "link");
	EXPECT_EQ(digests_.Take(directory_ / "large"), std::nullopt);
	digests_.Begin(directory_ / "missing");
	EXPECT_EQ(digests_.Take(directory_ / "missing"), std::nullopt);
}

} // namespace
} // namespace tarn::dataupdate
