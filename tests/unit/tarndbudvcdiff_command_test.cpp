// The program: arguments, exit codes, what it says, what it leaves, and the memory that it takes.
#include "child_process.h"
#include "temporary_directory.h"
#include "vcdiff_builder.h"

#include <gmock/gmock.h>

namespace tarn::decoder::test {

namespace {

namespace fs = std::filesystem;
using tarn::test::ChildResult;
using tarn::test::ReadFile;
using tarn::test::WriteFile;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::UnorderedElementsAre;

class VcdiffCommand : public ::testing::Test {
protected:
	VcdiffCommand() {
		WriteFile(source_, "abcdefgh");
		WriteFile(patch_, Patch(WindowBuilder().Segment(kSourceWindow, 8, 0).Copy(4, 0, Integer(2)).Build(4)));
	}

	ChildResult Run(const std::vector<std::string>& arguments) const {
		std::vector<std::string> command = {TARN_VCDIFF_PROGRAM};
		command.insert(command.end(), arguments.begin(), arguments.end());
		return tarn::test::RunChild(command, directory_.Path().string());
	}
	ChildResult Decode(const std::vector<std::string>& more = {}) const {
		std::vector<std::string> arguments = {"decode", source_, output_, patch_};
		arguments.insert(arguments.end(), more.begin(), more.end());
		return Run(arguments);
	}
	void ExpectFailure(const ChildResult& result, const std::string& line) const {
		EXPECT_EQ(result.exit_code, 1);
		EXPECT_EQ(result.out, "");
		EXPECT_EQ(result.err, "tarndbudvcdiff: " + line + "\n");
	}
	std::vector<std::string> Names() const {
		std::vector<std::string> names;
		for (const auto& entry : fs::directory_iterator(directory_.Path())) {
			names.push_back(entry.path().filename().string());
		}
		return names;
	}

	tarn::test::TemporaryDirectory directory_;
	std::string source_ = directory_ / "source";
	std::string output_ = directory_ / "output";
	std::string patch_ = directory_ / "patch";
};

TEST_F(VcdiffCommand, DecodesWithoutAWord) {
	const ChildResult result = Decode();
	EXPECT_EQ(result.exit_code, 0);
	EXPECT_EQ(result.out + result.err, "");
	EXPECT_EQ(ReadFile(output_), "cdef");
	EXPECT_THAT(Names(), UnorderedElementsAre("source", "patch", "output"));
}

TEST_F(VcdiffCommand, FailsWithOneLineAndNoOutput) {
	WriteFile(patch_, "nothing");
	ExpectFailure(Decode(), patch_ + ", byte 1: this is not a VCDIFF patch.");
	EXPECT_THAT(Names(), UnorderedElementsAre("source", "patch"));
}

TEST_F(VcdiffCommand, LeavesTheOutputAsItWasWhenItFails) {
	WriteFile(output_, "old");
	WriteFile(patch_, Patch(WindowBuilder().Run(2'000'000, 'x').Build(2'000'000) + "x"));
	EXPECT_EQ(Decode().exit_code, 1);
	EXPECT_EQ(ReadFile(output_), "old");
	EXPECT_THAT(Names(), UnorderedElementsAre("source", "patch", "output"));
}

TEST_F(VcdiffCommand, NeverOverwritesItsInput) {
	fs::create_symlink("source", directory_ / "soft");
	fs::create_hard_link(patch_, directory_ / "hard");
	const std::string patch = ReadFile(patch_);
	output_ = directory_ / "soft";
	ExpectFailure(Decode(), output_ + " is the source itself and would be overwritten.");
	output_ = directory_ / "hard";
	ExpectFailure(Decode(), output_ + " is the patch itself and would be overwritten.");
	EXPECT_EQ(ReadFile(source_), "abcdefgh");
	EXPECT_EQ(ReadFile(patch_), patch);
}

TEST_F(VcdiffCommand, TakesAnotherLimit) {
	ExpectFailure(Decode({"--max-output", "3"}),
	    patch_ + ", byte 10: the window would make the output larger than 3 bytes, which is the limit.");
	EXPECT_EQ(Decode({"--max-output", "4"}).exit_code, 0);
}

TEST_F(VcdiffCommand, ExplainsWrongUsage) {
	const std::vector<std::vector<std::string>> lines = {{}, {"decode"}, {"decode", source_, output_},
	    {"decode", source_, output_, patch_, "more"}, {"encode", source_, output_, patch_},
	    {"decode", source_, output_, patch_, "--max-output", "many"},
	    {"decode", source_, output_, patch_, "--max-output", "-1"}, {"--unknown"}};
	for (const auto& line : lines) {
		const ChildResult result = Run(line);
		EXPECT_EQ(result.exit_code, 2) << ::testing::PrintToString(line);
		EXPECT_THAT(result.err, MatchesRegex("tarndbudvcdiff: [^\n]+ \\(see tarndbudvcdiff --help\\)\n"));
		EXPECT_EQ(result.out, "");
	}
	EXPECT_THAT(Names(), UnorderedElementsAre("source", "patch"));
}

TEST_F(VcdiffCommand, ExplainsItself) {
	for (const std::vector<std::string>& line : {std::vector<std::string>{"--help"}, {"decode", "--help"}}) {
		const ChildResult result = Run(line);
		EXPECT_EQ(result.exit_code, 0);
		EXPECT_EQ(result.err, "");
		EXPECT_THAT(result.out, AllOf(HasSubstr("OUTPUT"), HasSubstr("--max-output"), HasSubstr("64 GiB"),
		                            HasSubstr("256 MiB"), HasSubstr("TARNVCD1"), HasSubstr("Exit status")));
	}
	const ChildResult version = Run({"--version"});
	EXPECT_EQ(version.exit_code, 0);
	EXPECT_THAT(version.out, MatchesRegex("tarndbudvcdiff [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(VcdiffCommand, TakesLittleMemoryWhateverTheSizes) {
#ifdef TARN_SANITIZED
	constexpr long kMostKibibytes = 80'000;
#else
	constexpr long kMostKibibytes = 16'384;
#endif
	// All at once: a source, a window and a data section far larger than that, and a window that copies from the
	// target.
	constexpr std::uint64_t kSize = 40'000'000;
	fs::resize_file(source_, kSize);
	const std::string copies =
	    WindowBuilder().Segment(kSourceWindow, kSize, 0).Copy(kSize, 0, Integer(0)).Build(kSize) +
	    WindowBuilder().Segment(kTargetWindow, kSize, 0).Copy(kSize / 2, 0, Integer(8)).Build(kSize / 2);
	WindowBuilder added;
	added.Add(std::string(kSize / 2, 'a'));
	WriteFile(patch_, Patch(copies + added.Build(kSize / 2)));
	// Measured by a small program in between: a child begins with the peak of whom it was split off from.
	const std::string peak = directory_ / "peak";
	const ChildResult result = tarn::test::RunChild(
	    {"/usr/bin/time", "-f", "%M", "-o", peak, TARN_VCDIFF_PROGRAM, "decode", source_, output_, patch_},
	    directory_.Path().string());
	EXPECT_EQ(result.exit_code, 0) << result.err;
	EXPECT_EQ(fs::file_size(output_), 2 * kSize);
	const long kibibytes = std::stol(ReadFile(peak));
	EXPECT_LE(kibibytes, kMostKibibytes);
	EXPECT_GT(kibibytes, 1000) << "nothing was measured";
}

} // namespace

} // namespace tarn::decoder::test
