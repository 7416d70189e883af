#include "dataupdate/internal/staged_tree.h"

#include "dataupdate/internal/log.h"
#include "dataupdate/internal/strategy_steps.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

// The name by which this line is known.
constexpr char kLogSource[] = "staging.cpp";

std::vector<std::string> EntriesOf(const std::string& directory) {
	std::vector<std::string> entries;
	IOUtils().IterateDirectory(
	    directory, [&entries](const std::string& entry) { entries.push_back(entry); }, false);
	return entries;
}

std::string NameOf(const std::string& entry) {
	return fs::path(entry).filename().string();
}

/** Into a directory, under the same name; false with errno set when that fails. */
bool Move(const std::string& entry, const std::string& directory) {
	const std::string target = directory + "/" + NameOf(entry);
	return renameat2(AT_FDCWD, entry.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0;
}

} // namespace

void TellSlowReplacement(const std::string& reason) {
	TARN_LOG(LOG_INFO, "Readers will wait for every file: %s", reason.c_str());
}

bool AreOnOneMount(const std::string& left, const std::string& right) {
	struct statx left_status {};
	struct statx right_status {};
	constexpr unsigned int kMask = STATX_TYPE | STATX_MNT_ID;
	return statx(AT_FDCWD, left.c_str(), 0, kMask, &left_status) == 0 &&
	       statx(AT_FDCWD, right.c_str(), 0, kMask, &right_status) == 0 &&
	       left_status.stx_dev_major == right_status.stx_dev_major &&
	       left_status.stx_dev_minor == right_status.stx_dev_minor && left_status.stx_mnt_id == right_status.stx_mnt_id;
}

bool HandsAttributesDown(const std::string& directory) {
	struct stat status {};
	return stat(directory.c_str(), &status) != 0 || (status.st_mode & S_ISGID) != 0 ||
	       getxattr(directory.c_str(), "system.posix_acl_default", nullptr, 0) > 0;
}

void RemoveEntries(const std::string& directory) {
	for (const std::string& entry : EntriesOf(directory)) {
		IOUtils().RmRf(entry);
	}
}

StagedTree::StagedTree(const std::string& volume, const std::string& id, std::string install_directory)
    : staged_(TempPath(volume, id, kStaged)),
      replaced_(TempPath(volume, id, kReplaced)),
      install_directory_(std::move(install_directory)) {}

void StagedTree::MakeRoom() const {
	fs::create_directory(staged_);
	fs::create_directory(replaced_);
}

void StagedTree::ClearInstalled(const std::function<bool(const std::string& name)>& stays) const {
	for (const std::string& entry : EntriesOf(install_directory_)) {
		if (!(stays && stays(NameOf(entry))) && !Move(entry, replaced_)) {
			IOUtils().RmRf(entry);
		}
	}
}

bool StagedTree::MoveIn() const {
	bool is_first = true;
	for (const std::string& entry : EntriesOf(staged_)) {
		if (!Move(entry, install_directory_)) {
			if (is_first) {
				return false;
			}
			throw fs::filesystem_error("move", entry, fs::path(install_directory_),
			    boost::system::error_code(errno, boost::system::system_category()));
		}
		is_first = false;
	}
	return true;
}

} // namespace tarn::dataupdate
