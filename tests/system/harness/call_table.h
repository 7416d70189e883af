/** @file The system calls that can be made to fail, and the errors. */
#ifndef TESTS_SYSTEM_HARNESS_CALL_TABLE_H
#define TESTS_SYSTEM_HARNESS_CALL_TABLE_H

#include <sys/syscall.h>

#include <cerrno>
#include <map>
#include <string>

namespace tarn::faults {

enum class About { kDescriptor, kPath, kPathAt, kNothing };

struct Call {
	long number;
	const char* name;
	About about;
};

#define CALL(name, about)                                                                                              \
	{ SYS_##name, #name, About::about }
inline const Call kCalls[] = {
    CALL(read, kDescriptor),
    CALL(pread64, kDescriptor),
    CALL(write, kDescriptor),
    CALL(writev, kDescriptor),
    CALL(pwrite64, kDescriptor),
    CALL(ftruncate, kDescriptor),
    CALL(fallocate, kDescriptor),
    CALL(ioctl, kDescriptor),
    CALL(copy_file_range, kDescriptor),
    CALL(sendfile, kDescriptor),
    CALL(fsync, kDescriptor),
    CALL(fdatasync, kDescriptor),
    CALL(syncfs, kDescriptor),
    CALL(flock, kDescriptor),
    CALL(fcntl, kDescriptor),
    CALL(getdents64, kDescriptor),
    CALL(fstat, kDescriptor),
    CALL(fstatfs, kDescriptor),
    CALL(fchmod, kDescriptor),
    CALL(fchown, kDescriptor),
    CALL(close, kDescriptor),
    CALL(lseek, kDescriptor),
    CALL(connect, kDescriptor),
    CALL(sendto, kDescriptor),
    CALL(recvfrom, kDescriptor),
    CALL(dup, kDescriptor),
    CALL(flistxattr, kDescriptor),
    CALL(fgetxattr, kDescriptor),
    CALL(open, kPath),
    CALL(stat, kPath),
    CALL(lstat, kPath),
    CALL(statfs, kPath),
    CALL(access, kPath),
    CALL(readlink, kPath),
    CALL(rename, kPath),
    CALL(unlink, kPath),
    CALL(mkdir, kPath),
    CALL(rmdir, kPath),
    CALL(link, kPath),
    CALL(symlink, kPath),
    CALL(chmod, kPath),
    CALL(chown, kPath),
    CALL(execve, kPath),
    CALL(getxattr, kPath),
    CALL(lgetxattr, kPath),
    CALL(llistxattr, kPath),
    CALL(openat, kPathAt),
    CALL(openat2, kPathAt),
    CALL(newfstatat, kPathAt),
    CALL(statx, kPathAt),
    CALL(faccessat2, kPathAt),
    CALL(readlinkat, kPathAt),
    CALL(renameat, kPathAt),
    CALL(renameat2, kPathAt),
    CALL(unlinkat, kPathAt),
    CALL(mkdirat, kPathAt),
    CALL(linkat, kPathAt),
    CALL(symlinkat, kPathAt),
    CALL(fchmodat, kPathAt),
    CALL(fchownat, kPathAt),
    CALL(utimensat, kPathAt),
    CALL(mmap, kNothing),
    CALL(pipe2, kNothing),
    CALL(socket, kNothing),
    CALL(memfd_create, kNothing),
    CALL(clone, kNothing),
    CALL(clone3, kNothing),
    CALL(vfork, kNothing),
    CALL(wait4, kNothing),
    CALL(waitid, kNothing),
    CALL(poll, kNothing),
    CALL(pselect6, kNothing),
    CALL(select, kNothing),
    CALL(ppoll, kNothing),
};
#undef CALL

inline const std::map<std::string, int> kErrors = {
    {"ENOSPC", ENOSPC}, {"EIO", EIO}, {"EMFILE", EMFILE}, {"ENOMEM", ENOMEM}, {"EINTR", EINTR}};

inline const Call* FindCall(long number) {
	for (const Call& call : kCalls) {
		if (call.number == number) {
			return &call;
		}
	}
	return nullptr;
}

} // namespace tarn::faults

#endif
