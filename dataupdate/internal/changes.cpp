#include "dataupdate/internal/changes.h"

#include "dataupdate/internal/file_copy.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

/**
 * Puts a new file in place, or takes a deleted one away, by one rename. The old file goes to where the new one was, and
 * is removed with the temporary data, when no reader waits for it. False, with nothing done, where a link or a
 * directory is concerned, a directory is missing, or the two lie on different file systems.
 */
bool Exchange(const ModifyInfo& info, const std::string& installed) {
	struct stat status {};
	const bool is_there = lstat(installed.c_str(), &status) == 0;
	if (is_there && !S_ISREG(status.st_mode)) {
		return false;
	}
	if (info.operation == ModifyInfo::kDelete) {
		const std::string gone = info.source + ".gone"; // No working copy has a dot in its name.
		return is_there && renameat2(AT_FDCWD, installed.c_str(), AT_FDCWD, gone.c_str(), RENAME_NOREPLACE) == 0;
	}
	const bool is_file = lstat(info.source.c_str(), &status) == 0 && S_ISREG(status.st_mode);
	const unsigned flags = is_there ? RENAME_EXCHANGE : RENAME_NOREPLACE;
	return is_file && renameat2(AT_FDCWD, info.source.c_str(), AT_FDCWD, installed.c_str(), flags) == 0;
}

/** The file that a link leads to belongs to another owner, who may write to it under its own name. */
void PutIntoPlace(const std::string& source, const std::string& target) {
	if (fs::is_symlink(fs::symlink_status(source))) {
		CopyRegularFile(source, target);
	} else {
		InstallRegularFile(source, target);
	}
}

void RemoveEmptyDirectories(const fs::path& below) {
	const auto remove_directory = [](const std::string& entry) {
		if (fs::is_directory(fs::symlink_status(entry)) && fs::is_empty(entry)) {
			fs::remove(entry);
		}
	};
	IOUtils().IterateDirectory(below.string(), remove_directory, true);
}

/** Calls visit(name, info) for each change to a file whose name begins so. */
template<typename Visit>
void ForEachBelow(const Changes& changes, const std::string& prefix, const Visit& visit) {
	for (auto entry = changes.lower_bound(prefix);
	     entry != changes.end() && entry->first.compare(0, prefix.size(), prefix) == 0; ++entry) {
		visit(entry->first, entry->second);
	}
}

/**
 * For a directory whose name the chain deletes or gives to a file: deletes now what the chain deletes in it, since its
 * name comes before theirs. Returns whether the chain puts files into it as well.
 */
bool DeleteBelow(const Changes& changes, const std::string& root, const std::string& directory, Placing placing) {
	bool has_files = false;
	ForEachBelow(changes, directory + "/", [&](const std::string& name, const ModifyInfo& info) {
		const fs::path installed = fs::path(root) / name;
		if (info.operation != ModifyInfo::kDelete) {
			has_files = true;
		} else if (!fs::is_directory(fs::symlink_status(installed)) && // One still holds what is deleted after it.
		           (placing == Placing::kLink || !Exchange(info, installed.string()))) {
			fs::remove(installed);
		}
	});
	RemoveEmptyDirectories(fs::path(root) / directory);
	return has_files;
}

/** Carries one change out, whatever is in the file's place. */
void Replace(const Changes& changes, const std::string& root, const std::string& name, Placing placing) {
	const ModifyInfo& info = changes.at(name);
	const fs::path installed = fs::path(root) / name;
	const bool is_directory = fs::is_directory(fs::symlink_status(installed));
	// Files that the chain does not know stay, and their directory with them: half way is no place to fail.
	const bool stays_directory = is_directory &&
	                             (DeleteBelow(changes, root, name, placing) || !fs::is_empty(installed)) &&
	                             info.operation == ModifyInfo::kDelete;
	if (!stays_directory) {
		fs::remove(installed);
	}
	if (info.operation == ModifyInfo::kOverride) {
		fs::create_directories(installed.parent_path());
		PutIntoPlace(info.source, installed.string());
	}
}

} // namespace

void InstallChanges(const Changes& changes, const std::string& root, Placing placing, const std::string& directory) {
	const auto install = [&](const std::string& name, const ModifyInfo& info) {
		if (placing == Placing::kLink || !Exchange(info, (fs::path(root) / name).string())) {
			Replace(changes, root, name, placing);
		}
	};
	if (directory.empty()) {
		ForEachBelow(changes, "", install);
		return;
	}
	if (const auto own = changes.find(directory); own != changes.end()) {
		install(own->first, own->second);
	}
	ForEachBelow(changes, directory + "/", install);
}

} // namespace tarn::dataupdate
