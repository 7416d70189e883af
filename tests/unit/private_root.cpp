#include "private_root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace tarn::test {

namespace {

namespace fs = std::filesystem;

// Where the new root is put together. The tests see another one, which is empty.
constexpr char kNewRoot[] = "/run";

const std::array<fs::path, 7> kFixedPaths = {"/run/data_update", "/usr/tarn/etc/data_update",
    "/usr/tarn/etc/downloads.conf", "/usr/tarn/etc/volumes.conf", "/usr/share/data_update", "/var/lib/data_update",
    "/var/cache/data_update"};
const std::array<fs::path, 6> kHiddenPaths = {
    "/run", "/usr/tarn", "/usr/share/data_update", "/var/lib/data_update", "/var/cache/data_update", "/var/db"};

std::string problem = "the tests' own main function did not run";

void Check(bool works, const std::string& what) {
	if (!works) {
		throw std::system_error(errno, std::generic_category(), what);
	}
}

fs::path InNewRoot(const fs::path& path) {
	return fs::path(kNewRoot) / path.relative_path();
}

/** Volumes of the machine, or of other tests, would be writable for others or come and go. */
bool IsVolume(const fs::path& path) {
	return path.parent_path() == "/" && path.filename().string().rfind("volume", 0) == 0;
}

bool IsHidden(const fs::path& path) {
	return IsVolume(path) || std::find(kHiddenPaths.begin(), kHiddenPaths.end(), path) != kHiddenPaths.end();
}

bool HoldsHidden(const fs::path& directory) {
	return std::any_of(kHiddenPaths.begin(), kHiddenPaths.end(), [&](const fs::path& hidden) {
		return std::mismatch(directory.begin(), directory.end(), hidden.begin(), hidden.end()).first == directory.end();
	});
}

void Bind(const fs::path& path) {
	if (fs::is_directory(path)) {
		fs::create_directory(InNewRoot(path));
	} else {
		const std::ofstream file(InNewRoot(path));
	}
	Check(
	    mount(path.c_str(), InNewRoot(path).c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind " + path.string());
}

void Mirror(const fs::path& directory) {
	for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
		if (IsHidden(entry.path())) {
			continue;
		}
		if (entry.is_symlink()) {
			fs::copy_symlink(entry.path(), InNewRoot(entry.path()));
		} else if (entry.is_directory() && HoldsHidden(entry.path())) {
			fs::create_directory(InNewRoot(entry.path()));
			Mirror(entry.path());
		} else if (entry.is_directory() || entry.is_regular_file()) {
			Bind(entry.path());
		}
	}
}

void BecomeRootOfNamespace() {
	const std::string uid = std::to_string(geteuid());
	const std::string gid = std::to_string(getegid());
	Check(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "new user namespace");
	std::ofstream("/proc/self/setgroups") << "deny";
	std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
	std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
	Check(geteuid() == 0, "root in a new user namespace");
}

void ChangeRoot() {
	const fs::path working_directory = fs::current_path();
	if (geteuid() == 0) {
		Check(unshare(CLONE_NEWNS) == 0, "new mount namespace");
	} else {
		BecomeRootOfNamespace();
	}
	Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
	Check(mount("tmpfs", kNewRoot, "tmpfs", 0, "mode=755") == 0, "memory for a new root");
	Mirror("/");
	fs::create_directory(InNewRoot("/run"));
	Check(chroot(kNewRoot) == 0 && chdir(working_directory.c_str()) == 0, "change root");
}

/**
 * The machine's own paths are everybody's, so the processes of all test programs, which lie in one directory, take
 * turns; the lock lasts as long as the process.
 */
void LockOwnPaths() {
	const fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
	const int fd = open(programs.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	Check(fd >= 0 && flock(fd, LOCK_EX) == 0, "turn on the machine's own paths");
}

void ClearFixedPaths() {
	for (const fs::path& path : kFixedPaths) {
		fs::remove_all(path);
	}
}

} // namespace

std::string EnterPrivateRoot() {
	try {
		ChangeRoot();
	} catch (const std::exception& error) {
		const char* sandbox = std::getenv("TARN_SANDBOX");
		if (sandbox == nullptr || std::string(sandbox) != "none") {
			return std::string("no private root here, and TARN_SANDBOX is not \"none\": ") + error.what();
		}
		LockOwnPaths();
	}
	return "";
}

std::string PrivateRootProblem() {
	return problem;
}

void FixedPathsTest::SetUp() {
	if (!problem.empty()) {
		GTEST_SKIP() << problem;
	}
	umask(022); // Whatever the developer's, directories that others could write are refused.
	ClearFixedPaths();
}

void FixedPathsTest::TearDown() {
	if (problem.empty()) {
		ClearFixedPaths();
	}
}

} // namespace tarn::test

int main(int argc, char** argv) {
	testing::InitGoogleTest(&argc, argv);
	if (!testing::GTEST_FLAG(list_tests)) {
		tarn::test::problem = tarn::test::EnterPrivateRoot();
	}
	return RUN_ALL_TESTS();
}
