// Patches applied to files: what appears, what never does, and what is refused.
#include "temporary_directory.h"
#include "vcdiff_builder.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>

/** What the system refuses, for a while. */
static struct {
	int nameless = 0; ///< error of opening a file without a name
	int link = 0;
	int rename = 0;
} refusals;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, ...) {
	if ((flags & O_TMPFILE) == O_TMPFILE && refusals.nameless != 0) {
		errno = refusals.nameless;
		return -1;
	}
	va_list more;
	va_start(more, flags);
	const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
	va_end(more);
	return __real_open(path, flags, mode);
}

extern "C" int __real_linkat(int from_fd, const char* from, int to_fd, const char* to, int flags);
extern "C" int __wrap_linkat(int from_fd, const char* from, int to_fd, const char* to, int flags) {
	if (refusals.link != 0) {
		errno = refusals.link;
		return -1;
	}
	return __real_linkat(from_fd, from, to_fd, to, flags);
}

extern "C" int __real_rename(const char* from, const char* to);
extern "C" int __wrap_rename(const char* from, const char* to) {
	if (refusals.rename != 0) {
		errno = refusals.rename;
		return -1;
	}
	return __real_rename(from, to);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace tarn::decoder::test {

namespace {

namespace fs = std::filesystem;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

constexpr char kSource[] = "abcdefghijklmnop";

class VcdiffFile : public ::testing::Test {
protected:
	VcdiffFile() {
		tarn::test::WriteFile(source_, kSource);
		tarn::test::WriteFile(patch_, GoodPatch());
	}
	~VcdiffFile() override { refusals = {}; }

	static std::string GoodPatch() {
		return Patch(WindowBuilder().Segment(kSourceWindow, 16, 0).Copy(10, 0, Integer(6)).Add("!").Build(11));
	}
	static constexpr char kGoodOutput[] = "ghijklmnop!";

	std::string Error() const {
		try {
			DecodeFile(source_, output_, patch_);
			return "no error";
		} catch (const DecodeError& error) {
			return error.what();
		}
	}
	std::vector<std::string> Names() const {
		std::vector<std::string> names;
		for (const auto& entry : fs::directory_iterator(directory_.Path())) {
			names.push_back(entry.path().filename().string());
		}
		return names;
	}
	void ExpectError(const std::string& text, const std::vector<std::string>& more_names = {}) const {
		EXPECT_EQ(Error(), text);
		std::vector<std::string> names = {"source", "patch"};
		names.insert(names.end(), more_names.begin(), more_names.end());
		EXPECT_THAT(Names(), UnorderedElementsAreArray(names));
	}

	tarn::test::TemporaryDirectory directory_;
	std::string source_ = directory_ / "source";
	std::string output_ = directory_ / "output";
	std::string patch_ = directory_ / "patch";
};

TEST_F(VcdiffFile, AppearsWithItsContentAndNothingElse) {
	ExpectError("no error", {"output"});
	EXPECT_EQ(tarn::test::ReadFile(output_), kGoodOutput);
}

TEST_F(VcdiffFile, HasTheModeOfANewFile) {
	const mode_t before = umask(027);
	EXPECT_EQ(Error(), "no error");
	umask(before);
	struct stat status = {};
	ASSERT_EQ(stat(output_.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777U, 0640U);
	EXPECT_EQ(status.st_nlink, 1U);
}

TEST_F(VcdiffFile, ReplacesAFileOfItsName) {
	tarn::test::WriteFile(output_, "a longer content than the new one has");
	fs::create_hard_link(output_, directory_ / "other");
	ExpectError("no error", {"output", "other"});
	EXPECT_EQ(tarn::test::ReadFile(output_), kGoodOutput);
	EXPECT_EQ(tarn::test::ReadFile(directory_ / "other"), "a longer content than the new one has");
}

TEST_F(VcdiffFile, ReplacesALinkAndNotWhatItLeadsTo) {
	tarn::test::WriteFile(directory_ / "other", "other");
	fs::create_symlink("other", output_);
	ExpectError("no error", {"output", "other"});
	EXPECT_FALSE(fs::is_symlink(output_));
	EXPECT_EQ(tarn::test::ReadFile(directory_ / "other"), "other");
	fs::remove(output_);
	fs::create_symlink("nowhere", output_);
	ExpectError("no error", {"output", "other"});
	EXPECT_EQ(tarn::test::ReadFile(output_), kGoodOutput);
}

TEST_F(VcdiffFile, MayHaveAPathRelativeToTheWorkingDirectory) {
	const fs::path before = fs::current_path();
	fs::current_path(directory_.Path());
	output_ = "output";
	EXPECT_EQ(Error(), "no error");
	EXPECT_EQ(Error(), "no error") << "replacing";
	fs::current_path(before);
	EXPECT_THAT(Names(), UnorderedElementsAre("source", "patch", "output"));
}

TEST_F(VcdiffFile, MayHaveTheLongestName) {
	output_ = directory_ / std::string(255, 'n');
	EXPECT_EQ(Error(), "no error");
	EXPECT_EQ(Error(), "no error") << "replacing";
	EXPECT_EQ(Names().size(), 3U);
}

TEST_F(VcdiffFile, StaysAsItWasWhenThePatchIsWrong) {
	// The error comes after more than a block has been written.
	const std::string window = WindowBuilder().Run(3'000'000, 'x').Build(3'000'000);
	tarn::test::WriteFile(patch_, Patch(window + WindowBuilder().Build(1)));
	const std::string error = patch_ + ", byte 28: the instructions end 1 bytes before their window is full.";
	ExpectError(error);
	tarn::test::WriteFile(output_, "old");
	ExpectError(error, {"output"});
	EXPECT_EQ(tarn::test::ReadFile(output_), "old");
}

TEST_F(VcdiffFile, StaysAsItWasWhenTheResultIsWrong) {
	const std::string window = WindowBuilder().Add("abc").Build(3);
	tarn::test::WriteFile(patch_, PatchWithApplicationHeader(PromiseOf(kSource, "abd"), window));
	tarn::test::WriteFile(output_, "old");
	ExpectError(
	    patch_ + ": the result has another hash than promised; is " + source_ + " the right source?", {"output"});
	EXPECT_EQ(tarn::test::ReadFile(output_), "old");
}

TEST_F(VcdiffFile, MustNotBeTheSource) {
	fs::create_hard_link(source_, directory_ / "hard");
	fs::create_symlink("source", directory_ / "soft");
	for (const std::string& name : {source_, directory_ / "hard", directory_ / "soft", directory_ / "./source"}) {
		output_ = name;
		ExpectError(name + " is the source itself and would be overwritten.", {"hard", "soft"});
	}
	EXPECT_EQ(tarn::test::ReadFile(source_), kSource);
}

TEST_F(VcdiffFile, MustNotBeThePatch) {
	fs::create_hard_link(patch_, directory_ / "hard");
	fs::create_symlink("patch", directory_ / "soft");
	for (const std::string& name : {patch_, directory_ / "hard", directory_ / "soft"}) {
		output_ = name;
		ExpectError(name + " is the patch itself and would be overwritten.", {"hard", "soft"});
	}
	EXPECT_EQ(tarn::test::ReadFile(patch_), GoodPatch());
}

TEST_F(VcdiffFile, MustBeAFileOrNothing) {
	output_ = directory_ / "folder";
	fs::create_directory(output_);
	ExpectError(output_ + " exists and is not a regular file.", {"folder"});
	output_ += "/";
	ExpectError("\"" + output_ + "\" is not a file's name.", {"folder"});
	output_ = "";
	ExpectError("\"\" is not a file's name.", {"folder"});
	output_ = "/dev/null";
	ExpectError("/dev/null exists and is not a regular file.", {"folder"});
	output_ = directory_ / "missing/output";
	ExpectError(output_ + " could not be created: No such file or directory.", {"folder"});
	output_ = directory_ / "source/output";
	ExpectError(output_ + " could not be created: Not a directory.", {"folder"});
}

TEST_F(VcdiffFile, IsMadeFromRegularFilesOnly) {
	const std::string source = source_;
	source_ = directory_ / "fifo";
	ASSERT_EQ(mkfifo(source_.c_str(), 0600), 0);
	ExpectError(source_ + " is not a regular file.", {"fifo"});
	source_ = directory_.Path().string();
	ExpectError(source_ + " is not a regular file.", {"fifo"});
	source_ = "/dev/null";
	ExpectError(source_ + " is not a regular file.", {"fifo"});
	source_ = directory_ / "missing";
	ExpectError(source_ + " could not be opened: No such file or directory.", {"fifo"});
	source_ = source;
	patch_ = directory_ / "fifo";
	ExpectError(patch_ + " is not a regular file.", {"fifo"});
	patch_ = directory_ / "missing";
	ExpectError(patch_ + " could not be opened: No such file or directory.", {"fifo"});
}

/** The largest size that this process may give a file, for a while; outgrowing it is an error and no signal. */
class FileSizeLimit {
public:
	explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
		getrlimit(RLIMIT_FSIZE, &before_);
		const rlimit limit = {bytes, before_.rlim_max};
		setrlimit(RLIMIT_FSIZE, &limit);
	}
	FileSizeLimit(const FileSizeLimit&) = delete;
	FileSizeLimit& operator=(const FileSizeLimit&) = delete;
	~FileSizeLimit() {
		setrlimit(RLIMIT_FSIZE, &before_);
		std::signal(SIGXFSZ, handler_);
	}

private:
	rlimit before_ = {};
	void (*handler_)(int);
};

TEST_F(VcdiffFile, DoesNotAppearWhenItCannotBeWritten) {
	tarn::test::WriteFile(patch_, Patch(WindowBuilder().Run(3'000'000, 'x').Build(3'000'000)));
	const FileSizeLimit limit(1'000'000);
	ExpectError(output_ + " could not be written: File too large.");
}

TEST_F(VcdiffFile, DoesNotAppearWhenTheProcessIsKilled) {
	tarn::test::WriteFile(patch_, Patch(WindowBuilder().Run(3'000'000, 'x').Build(3'000'000)));
	const pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		// The write that goes beyond ends the process, without a core and without a chance to tidy up.
		const rlimit none = {0, 0};
		const rlimit limit = {1'000'000, 1'000'000};
		setrlimit(RLIMIT_CORE, &none);
		setrlimit(RLIMIT_FSIZE, &limit);
		std::signal(SIGXFSZ, SIG_DFL);
		DecodeFile(source_, output_, patch_);
		_exit(0);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFSIGNALED(status));
	EXPECT_THAT(Names(), UnorderedElementsAre("source", "patch"));
}

TEST_F(VcdiffFile, IsMadeAsWellWhereNoFileCanBeWithoutAName) {
	for (const int error : {EOPNOTSUPP, EISDIR, EINVAL}) {
		refusals.nameless = error;
		ExpectError("no error", {"output"});
		EXPECT_EQ(tarn::test::ReadFile(output_), kGoodOutput);
		ExpectError("no error", {"output"});
		fs::remove(output_);
	}
	tarn::test::WriteFile(patch_, Patch(WindowBuilder().Run(3'000'000, 'x').Build(3'000'000) + "x"));
	EXPECT_NE(Error(), "no error");
	EXPECT_THAT(Names(), UnorderedElementsAre("source", "patch"));
}

TEST_F(VcdiffFile, LeavesNothingWhenItCannotBePutInPlace) {
	refusals.link = EPERM;
	ExpectError(output_ + " could not be put in place: Operation not permitted.");
	refusals = {};
	refusals.rename = EIO;
	tarn::test::WriteFile(output_, "old");
	ExpectError(output_ + " could not be put in place: Input/output error.", {"output"});
	EXPECT_EQ(tarn::test::ReadFile(output_), "old");
	refusals.nameless = EOPNOTSUPP;
	ExpectError(output_ + " could not be put in place: Input/output error.", {"output"});
}

TEST_F(VcdiffFile, IsMadeFromFilesLargerThan4GiB) {
	const std::uint64_t size = (std::uint64_t{5} << 30U) + 3;
	tarn::test::WriteFile(source_, "");
	fs::resize_file(source_, size);
	{
		std::ofstream end(source_, std::ios::binary | std::ios::in);
		end.seekp(static_cast<std::streamoff>(size - 3));
		end << "end";
	}
	const std::string window = WindowBuilder()
	                               .Segment(kSourceWindow, size - 1, 1)
	                               .Copy(3, 0, Integer(size - 4))
	                               .Copy(2, 1, Integer(5))
	                               .Build(5);
	tarn::test::WriteFile(patch_, Patch(window));
	EXPECT_EQ(Error(), "no error");
	EXPECT_EQ(tarn::test::ReadFile(output_), "end" + std::string("nd"));
}

TEST_F(VcdiffFile, CopiesFromItsOwnBeginningThatIsLongWritten) {
	std::string expected;
	WindowBuilder window;
	std::string first(100'000, '\0');
	for (std::size_t place = 0; place < first.size(); ++place) {
		first[place] = static_cast<char>(place * place >> 3U);
	}
	window.Add(first).Run(2'000'000, '-');
	expected = first + std::string(2'000'000, '-');
	for (const std::uint64_t place : {0U, 10U, 20U, 90'000U, 99'990U, 7U}) {
		window.Copy(3'000, 0, Integer(place));
		expected += expected.substr(place, 3'000);
	}
	window.Copy(2'000'000, 0, Integer(50'000));
	expected += expected.substr(50'000, 2'000'000);
	tarn::test::WriteFile(patch_, Patch(window.Build(expected.size())));
	EXPECT_EQ(Error(), "no error");
	EXPECT_TRUE(tarn::test::ReadFile(output_) == expected);
}

} // namespace

} // namespace tarn::decoder::test
