/// recording_disk IMAGE RECORD DIRECTORY: shows IMAGE as the file "disk" in DIRECTORY, and writes down what becomes of
/// it.
///
/// A loop device over the file is a disk that remembers in which order it was written and flushed. RECORD gets an entry
/// for each write, two 64-bit numbers (offset, length) and the data, and for each flush an entry of length 0. It runs
/// until DIRECTORY is unmounted. Exit status: 0 unmounted, 1 failed, 2 wrong usage.

#define FUSE_USE_VERSION 31
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kDisk[] = "/disk";

struct Disk {
	int image = -1;
	int record = -1;
};

Disk& TheDisk() {
	return *static_cast<Disk*>(fuse_get_context()->private_data);
}

int GetAttributes(const char* path, struct stat* result, fuse_file_info* /*file*/) {
	if (std::strcmp(path, kDisk) == 0) {
		return fstat(TheDisk().image, result) == 0 ? 0 : -errno;
	}
	if (std::strcmp(path, "/") != 0) {
		return -ENOENT;
	}
	result->st_mode = S_IFDIR | 0700;
	result->st_nlink = 2;
	return 0;
}

int Open(const char* path, fuse_file_info* /*file*/) {
	return std::strcmp(path, kDisk) == 0 ? 0 : -ENOENT;
}

int Read(const char* /*path*/, char* buffer, std::size_t size, off_t offset, fuse_file_info* /*file*/) {
	const ssize_t got = pread(TheDisk().image, buffer, size, offset);
	return got < 0 ? -errno : static_cast<int>(got);
}

bool WriteDown(int record, off_t offset, const char* data, std::size_t size) {
	std::array<std::uint64_t, 2> head = {static_cast<std::uint64_t>(offset), size};
	std::array<iovec, 2> parts = {{{head.data(), sizeof(head)}, {const_cast<char*>(data), size}}};
	return writev(record, parts.data(), parts.size()) == static_cast<ssize_t>(sizeof(head) + size);
}

int Write(const char* /*path*/, const char* data, std::size_t size, off_t offset, fuse_file_info* /*file*/) {
	const Disk& disk = TheDisk();
	const ssize_t written = pwrite(disk.image, data, size, offset);
	if (written != static_cast<ssize_t>(size) || !WriteDown(disk.record, offset, data, size)) {
		return -EIO;
	}
	return static_cast<int>(size);
}

int Flush(const char* /*path*/, int /*data_only*/, fuse_file_info* /*file*/) {
	return WriteDown(TheDisk().record, 0, nullptr, 0) ? 0 : -EIO;
}

int Serve(char* program, char* directory, Disk& disk) {
	fuse_operations operations{};
	operations.getattr = GetAttributes;
	operations.open = Open;
	operations.read = Read;
	operations.write = Write;
	operations.fsync = Flush;
	char foreground[] = "-f";
	char one_thread[] = "-s"; // so that the record has the order in which writes were answered
	std::array<char*, 4> arguments = {program, foreground, one_thread, directory};
	return fuse_main(static_cast<int>(arguments.size()), arguments.data(), &operations, &disk) == 0 ? 0 : 1;
}

} // namespace

int main(int count, char** arguments) {
	if (count != 4) {
		(void)std::fprintf(stderr, "usage: recording_disk IMAGE RECORD DIRECTORY\n");
		return 2;
	}
	Disk disk{
	    open(arguments[1], O_RDWR | O_CLOEXEC), open(arguments[2], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
	if (disk.image < 0 || disk.record < 0) {
		(void)std::fprintf(stderr, "recording_disk: %s or %s: %s\n", arguments[1], arguments[2], std::strerror(errno));
		return 1;
	}
	return Serve(arguments[0], arguments[3], disk);
}
