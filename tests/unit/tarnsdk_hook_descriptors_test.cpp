// What happens to descriptors when the system refuses one in the middle of reading a directory of hooks.
#include "platform/tarnsdk/hook_directory.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

static bool duplicates_fail = false;
static bool streams_fail = false;
/** Closings of what was not open: the number may meanwhile be another thread's file. */
static int wrong_closings = 0;

// The linker sends the calls here. NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier)
extern "C" {
DIR* __real_fdopendir(int fd);
int __real_fcntl(int fd, int command, ...);
int __real_close(int fd);

DIR* __wrap_fdopendir(int fd) {
	if (streams_fail) {
		errno = ENOMEM;
		return nullptr;
	}
	return __real_fdopendir(fd);
}

int __wrap_fcntl(int fd, int command, ...) {
	va_list arguments;
	va_start(arguments, command);
	const long argument = va_arg(arguments, long);
	va_end(arguments);
	if (duplicates_fail && (command == F_DUPFD_CLOEXEC || command == F_DUPFD)) {
		errno = EMFILE;
		return -1;
	}
	return __real_fcntl(fd, command, argument);
}

int __wrap_close(int fd) {
	const int result = __real_close(fd);
	wrong_closings += result != 0 && errno == EBADF ? 1 : 0;
	return result;
}
}
// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)

namespace {

using tarn::sdk::FindHooks;
using tarn::sdk::HookList;

class HookDescriptors : public testing::Test {
protected:
	HookDescriptors() {
		tarn::test::WriteFile(directory_ / "hooks/event/10-hook", "");
		chmod((directory_ / "hooks/event/10-hook").c_str(), 0755);
		wrong_closings = 0;
	}
	~HookDescriptors() override { duplicates_fail = streams_fail = false; }

	static std::size_t OpenDescriptors() {
		std::size_t count = 0;
		for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
			++count;
		}
		return count;
	}
	HookList Find() const { return FindHooks({directory_ / "hooks"}, "event", getuid()); }

	tarn::test::SyslogCapture log_;
	tarn::test::TemporaryDirectory directory_;
};

TEST_F(HookDescriptors, AreClosedOnceWhenNoneCanBeDuplicated) {
	const std::size_t before = OpenDescriptors();
	duplicates_fail = true;
	Find();
	EXPECT_EQ(wrong_closings, 0);
	EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(HookDescriptors, AreClosedOnceWhenTheDirectoryCannotBeRead) {
	const std::size_t before = OpenDescriptors();
	streams_fail = true;
	EXPECT_FALSE(Find().complete);
	EXPECT_EQ(wrong_closings, 0);
	EXPECT_EQ(OpenDescriptors(), before);
	EXPECT_EQ(log_.Count(LOG_ERR, {"hooks/event", "is refused"}), 1U);
}

TEST_F(HookDescriptors, AreClosedOnceWhenAllGoesWell) {
	const std::size_t before = OpenDescriptors();
	EXPECT_EQ(Find().paths.size(), 1U);
	EXPECT_EQ(wrong_closings, 0);
	EXPECT_EQ(OpenDescriptors(), before);
}

} // namespace
