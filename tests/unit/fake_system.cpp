#include "fake_system.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <stdexcept>

namespace tarn::test {

namespace {

FakeSystem* current = nullptr;

bool Fails(const char* call) {
	return current != nullptr && current->IsFailureDue(call);
}

} // namespace

FakeSystem::FakeSystem() {
	if (current != nullptr) {
		throw std::logic_error("there is a system already");
	}
	current = this;
}

FakeSystem::~FakeSystem() {
	current = nullptr;
}

FakeSystem* FakeSystem::Current() {
	return current;
}

void FakeSystem::Fail(const std::string& call, int error, int times, int after) {
	faults_[call] = {error, times, after};
}

bool FakeSystem::IsFailureDue(const std::string& call) {
	if (on_call) {
		on_call(call);
	}
	const auto found = faults_.find(call);
	if (found == faults_.end()) {
		return false;
	}
	Fault& fault = found->second;
	if (fault.after > 0) {
		--fault.after;
		return false;
	}
	if (fault.times == 0) {
		return false;
	}
	--fault.times;
	errno = fault.error;
	return true;
}

} // namespace tarn::test

using tarn::test::current;
using tarn::test::Fails;

// The linker sends the library's calls to the __wrap_ functions.
std::chrono::steady_clock::time_point RealNow() __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point FakeNow() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

std::chrono::steady_clock::time_point FakeNow() {
	const auto now = RealNow();
	return current == nullptr ? now : now + current->Ahead();
}

extern "C" {

int __real_open(const char* path, int flags, ...);
int __real_flock(int fd, int operation);
int __real_syncfs(int fd);
int __real_fsync(int fd);
DIR* __real_opendir(const char* path);
dirent* __real_readdir(DIR* directory);
ssize_t __real_read(int fd, void* buffer, std::size_t size);
ssize_t __real_write(int fd, const void* data, std::size_t size);
ssize_t __real_copy_file_range(
    int from, off64_t* from_at, int to, off64_t* to_at, std::size_t size, unsigned int flags);
int __real_fchmod(int fd, mode_t mode);
int __real_renameat2(int from_directory, const char* from, int to_directory, const char* to, unsigned flags);
int __real_linkat(int from_directory, const char* from, int to_directory, const char* to, int flags);
int __real_usleep(useconds_t microseconds);
time_t __real_time(time_t* result);

int __wrap_open(const char* path, int flags, ...) {
	std::va_list arguments;
	va_start(arguments, flags);
	const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
	va_end(arguments);
	return Fails("open") ? -1 : __real_open(path, flags, mode);
}

int __wrap_flock(int fd, int operation) {
	return Fails("flock") ? -1 : __real_flock(fd, operation);
}

int __wrap_syncfs(int fd) {
	return Fails("syncfs") ? -1 : __real_syncfs(fd);
}

int __wrap_fsync(int fd) {
	return Fails("fsync") ? -1 : __real_fsync(fd);
}

DIR* __wrap_opendir(const char* path) {
	return Fails("opendir") ? nullptr : __real_opendir(path);
}

dirent* __wrap_readdir(DIR* directory) {
	dirent* entry = Fails("readdir") ? nullptr : __real_readdir(directory);
	if (entry != nullptr && current != nullptr && current->hide_entry_types) {
		entry->d_type = DT_UNKNOWN;
	}
	return entry;
}

ssize_t __wrap_read(int fd, void* buffer, std::size_t size) {
	return Fails("read") ? -1 : __real_read(fd, buffer, size);
}

ssize_t __wrap_write(int fd, const void* data, std::size_t size) {
	return Fails("write") ? -1 : __real_write(fd, data, size);
}

ssize_t __wrap_copy_file_range(
    int from, off64_t* from_at, int to, off64_t* to_at, std::size_t size, unsigned int flags) {
	return Fails("copy_file_range") ? -1 : __real_copy_file_range(from, from_at, to, to_at, size, flags);
}

int __wrap_fchmod(int fd, mode_t mode) {
	return Fails("fchmod") ? -1 : __real_fchmod(fd, mode);
}

int __wrap_renameat2(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
	return Fails("renameat2") ? -1 : __real_renameat2(from_directory, from, to_directory, to, flags);
}
int __wrap_linkat(int from_directory, const char* from, int to_directory, const char* to, int flags) {
	return Fails("linkat") ? -1 : __real_linkat(from_directory, from, to_directory, to, flags);
}

int __wrap_usleep(useconds_t microseconds) {
	if (current == nullptr) {
		return __real_usleep(microseconds);
	}
	current->Advance(std::chrono::microseconds(microseconds));
	++current->polls;
	if (current->on_poll) {
		current->on_poll(current->polls);
	}
	return 0;
}

time_t __wrap_time(time_t* result) {
	if (current == nullptr || !current->seconds) {
		return __real_time(result);
	}
	if (result != nullptr) {
		*result = *current->seconds;
	}
	return *current->seconds;
}

// The library makes two requests only: to share extents, and for a file's flags.
int __wrap_ioctl(int file, unsigned long request, ...) {
	std::va_list arguments;
	va_start(arguments, request);
	const int from = request == FICLONE ? va_arg(arguments, int) : -1;
	int* const flags = request == FS_IOC_GETFLAGS ? va_arg(arguments, int*) : nullptr;
	va_end(arguments);
	if (current != nullptr && current->clone && request == FICLONE && current->clone(file, from)) {
		return 0;
	}
	if (current != nullptr && current->flags && flags != nullptr) {
		*flags = current->flags(file);
		return 0;
	}
	errno = EOPNOTSUPP;
	return -1;
}

// Called from a shared library, so it stands in front of the C library's.
__attribute__((visibility("default"))) int statvfs64(const char* path, struct statvfs64* result) {
	if (current != nullptr && !current->space_works) {
		errno = EIO;
		return -1;
	}
	if (current != nullptr && current->space) {
		*result = {};
		result->f_frsize = 1;
		result->f_bsize = 1;
		result->f_bavail = current->space->first;
		result->f_bfree = current->space->first;
		result->f_blocks = current->space->second;
		return 0;
	}
	using Function = int (*)(const char*, struct statvfs64*);
	static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statvfs64"));
	return real(path, result);
}
}
