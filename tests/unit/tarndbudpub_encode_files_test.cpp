// The memory that making patches takes, and the patches that a small memory allows.
#include "diff_fixture.h"
#include "publisher/common/program.h"
#include "publisher/diff/file_encoder.h"

namespace tarn::test {

namespace {

using publisher::EncodedFile;
using publisher::EncodingTask;
using publisher::PatchKind;
using publisher::TreeFile;
using publisher::VcdiffWindows;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20U;

TEST(VcdiffMemory, GivesFilesTheirWholeSizeWhereThatFits) {
	const VcdiffWindows windows = VcdiffWindows::Of(650 * kMiB, 650 * kMiB, 2048 * kMiB);
	EXPECT_EQ(windows.source, 1024 * kMiB);
	EXPECT_EQ(windows.target, 16 * kMiB);
	EXPECT_LE(windows.Memory(650 * kMiB), 2048 * kMiB);
	EXPECT_EQ(VcdiffWindows::Of(0, 0, 16 * kMiB).source, kMiB / 2) << "the encoder takes no less";
}

TEST(VcdiffMemory, IsWhatTheEncoderWasSeenToTake) {
	const std::map<std::uint64_t, double> seen = {
	    {20, 168}, {64, 274}, {80, 419}, {120, 459}, {250, 846}, {300, 1407}, {600, 1707}}; // MiB, by those of the file
	for (const auto& [size, taken] : seen) {
		const VcdiffWindows windows = VcdiffWindows::Of(size * kMiB, size * kMiB, 4096 * kMiB);
		EXPECT_NEAR(static_cast<double>(windows.Memory(size * kMiB)) / kMiB, taken, 5.0) << size;
	}
}

TEST(VcdiffMemory, StaysBelowTheLimitForFilesOfAnySize) {
	for (const std::uint64_t limit : {16 * kMiB, 100 * kMiB, 2048 * kMiB, 100'000 * kMiB}) {
		for (std::uint64_t size = 1; size < kMiB * kMiB; size *= 3) {
			const VcdiffWindows windows = VcdiffWindows::Of(size, size, limit);
			EXPECT_LE(windows.Memory(size), limit) << size;
			EXPECT_EQ(windows.source & (windows.source - 1), 0U);
		}
	}
}

class EncodingFiles : public ::testing::Test {
protected:
	EncodingTask Task(const std::string& name, const std::string& before, const std::string& after) const {
		EncodingTask task;
		task.change = {name, Written(name + ".before", before), Written(name + ".after", after)};
		task.may_patch = true;
		return task;
	}
	TreeFile Written(const std::string& name, const std::string& content) const {
		WriteFile(directory_ / name, content);
		return {name, directory_ / name, content.size(), false};
	}

	TemporaryDirectory directory_;
	publisher::Encoders encoders_ = {publisher::FindProgram("xdelta3"), 3, 16 * kMiB};
};

TEST_F(EncodingFiles, MakesEveryPatchThoughTheyShareLittleMemory) {
	std::vector<EncodingTask> tasks;
	std::uint64_t together = 0;
	for (unsigned i = 0; i < 6; ++i) {
		const std::string content = Noise(3'000'000, i);
		tasks.push_back(Task("file" + std::to_string(i), content, "new" + content));
		together += MemoryOf(tasks.back(), encoders_.memory);
	}
	EXPECT_GT(together, 2 * encoders_.memory);
	std::vector<std::size_t> steps;
	const publisher::WorkDirectory work(directory_.Path());
	const std::vector<EncodedFile> encoded =
	    EncodeFiles(tasks, encoders_, work, [&steps](std::size_t done) { steps.push_back(done); });
	ASSERT_EQ(encoded.size(), tasks.size());
	for (const EncodedFile& file : encoded) {
		EXPECT_EQ(file.kind, PatchKind::kVcdiff);
		EXPECT_LT(fs::file_size(file.input), 10'000U);
	}
	EXPECT_EQ(steps.size(), tasks.size());
}

/** More memory finds what has moved far; less finds what is near, whatever the file's size. */
TEST_F(EncodingFiles, FindsAsMuchAsTheMemoryAllows) {
	const std::string begin = Noise(12'000'000, 1);
	const std::string end = Noise(12'000'000, 2);
	const publisher::WorkDirectory work(directory_.Path());
	const auto size = [&](const EncodingTask& task, std::uint64_t memory) {
		encoders_.memory = memory;
		return fs::file_size(EncodeFiles({task}, encoders_, work, {}).front().input);
	};
	const EncodingTask shifted = Task("shifted", begin + end, "new" + begin + "new" + end);
	EXPECT_LT(size(shifted, 16 * kMiB), 10'000U);
	const EncodingTask exchanged = Task("exchanged", begin + end, end + begin);
	EXPECT_LT(size(exchanged, 512 * kMiB), 10'000U);
	EXPECT_GT(size(exchanged, 16 * kMiB), 1'000'000U);
}

} // namespace

} // namespace tarn::test
