#include "host/library/file_changes.h"

#include "dataupdate/updater.h"
#include "dataupdate/utils.h"
#include "host/library/failure.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace tarn::ctl {

namespace fs = std::filesystem;

using dataupdate::DatabaseStatus;
using dataupdate::FileStatus;

namespace {

[[noreturn]] void Refuse(const fs::path& path, const char* why) {
	throw CommandError(kFailed, "The installed file " + path.string() + " cannot be recorded (" + why + ")");
}

struct stat StatusOf(const fs::path& path) {
	struct stat status {};
	if (lstat(path.c_str(), &status) != 0) {
		Refuse(path, std::strerror(errno));
	}
	return status;
}

/** Takes the digests of recorded files. The library takes a file that it cannot open for an empty one. */
void RecordDigests(InstalledFiles& record, const std::set<std::string>& names, const std::string& root) {
	const std::map<std::string, FileStatus> digests = dataupdate::CalculateStatus(names, root);
	for (const std::string& name : names) {
		const auto digest = digests.find(name);
		if (digest == digests.end()) {
			Refuse(fs::path(root) / name, std::strerror(ENOENT));
		}
		InstalledFile& file = record.files[name];
		if (digest->second.sha384_digest == DigestOfNothing() && file.size != 0) {
			Refuse(fs::path(root) / name, "it cannot be opened for reading and writing");
		}
		file.sha384_digest = digest->second.sha384_digest;
	}
}

/** Records files as they lie on the disk. What is neither a file nor a link stays unknown: no package brings it. */
void Record(InstalledFiles& record, const std::vector<std::string>& names, const std::string& root) {
	std::set<std::string> to_be_read;
	for (const std::string& name : names) {
		const fs::path path = fs::path(root) / name;
		const struct stat status = StatusOf(path);
		InstalledFile file;
		if (S_ISLNK(status.st_mode)) {
			file.link_target = fs::read_symlink(path).string();
		} else if (S_ISREG(status.st_mode)) {
			file.size = static_cast<std::uint64_t>(status.st_size);
			to_be_read.insert(name);
		} else {
			continue;
		}
		record.files[name] = file;
	}
	RecordDigests(record, to_be_read, root);
}

/** A file of a known digest. */
InstalledFile Known(const FileStatus& status, const fs::path& path, bool is_fresh) {
	InstalledFile file;
	file.sha384_digest = status.sha384_digest;
	std::error_code error;
	const std::uintmax_t size = is_fresh ? fs::file_size(path, error) : 0;
	if (is_fresh && !error) {
		file.size = size;
	}
	return file;
}

std::string NameOrRefuse(const std::string& name, const std::string& install_prefix) {
	const std::optional<std::string> relative = RelativeName(name, install_prefix);
	if (!relative) {
		Refuse(name, "it lies outside of the database's directory");
	}
	return *relative;
}

} // namespace

std::set<std::string> FilesBelow(const std::string& directory) {
	std::set<std::string> names;
	if (!fs::is_directory(directory)) {
		return names;
	}
	const std::size_t prefix = directory.size() + 1;
	dataupdate::IOUtils().IterateDirectory(
	    directory,
	    [&](const std::string& entry) {
		    if (!fs::is_directory(fs::symlink_status(entry))) {
			    names.insert(entry.substr(prefix));
		    }
	    },
	    true);
	return names;
}

std::map<std::string, FileIdentity> IdentitiesBelow(const std::string& directory) {
	std::map<std::string, FileIdentity> identities;
	for (const std::string& name : FilesBelow(directory)) {
		struct stat status {};
		if (lstat((fs::path(directory) / name).c_str(), &status) != 0) {
			continue; // It has vanished since, like whatever vanished before.
		}
		identities.emplace_hint(identities.end(), name,
		    FileIdentity{static_cast<std::int64_t>(status.st_dev), static_cast<std::int64_t>(status.st_ino),
		        status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ctim.tv_sec,
		        status.st_ctim.tv_nsec});
	}
	return identities;
}

InstalledFiles WholeRecord(const DatabaseStatus& status, const std::string& install_prefix, bool are_fresh) {
	InstalledFiles record;
	record.data_version = status.data_version;
	for (const auto& [name, file] : status.file_statuses) {
		const std::string relative = NameOrRefuse(name, install_prefix);
		const fs::path path = fs::path(install_prefix) / relative;
		if (!IsListedDirectory(file, path)) {
			record.files.emplace(relative, Known(file, path, are_fresh));
		}
	}
	return record;
}

InstalledFiles CarryThroughDiff(InstalledFiles before, const std::set<std::string>& changed,
    const DatabaseStatus& status, const std::string& install_prefix) {
	for (const std::string& name : changed) {
		before.files.erase(NameOrRefuse(name, install_prefix));
	}
	InstalledFiles now = WholeRecord(status, install_prefix, true);
	now.is_from_disk = before.is_from_disk;
	now.files.merge(before.files);
	return now;
}

InstalledFiles CarryThroughForced(InstalledFiles before, const std::map<std::string, FileIdentity>& identities,
    int data_version, const std::string& install_prefix) {
	before.data_version = data_version;
	std::vector<std::string> changed;
	for (const auto& [name, identity] : IdentitiesBelow(install_prefix)) {
		const auto earlier = identities.find(name);
		if (earlier == identities.end() || earlier->second != identity) {
			changed.push_back(name);
		}
	}
	Record(before, changed, install_prefix);
	for (auto entry = before.files.begin(); entry != before.files.end();) {
		// A directory of the package took the file's place.
		const bool is_replaced = fs::is_directory(fs::symlink_status(fs::path(install_prefix) / entry->first)) &&
		                         identities.count(entry->first) != 0;
		entry = is_replaced ? before.files.erase(entry) : std::next(entry);
	}
	return before;
}

std::optional<InstalledFiles> KnownFiles(
    const std::string& id, const DatabaseStatus& status, const std::string& install_prefix) {
	std::optional<InstalledFiles> record = ReadCredibleFiles(id, status, install_prefix);
	const auto lies_below = [&](const auto& entry) { return RelativeName(entry.first, install_prefix).has_value(); };
	const auto& listed = status.file_statuses;
	if (!record && ListsAllFiles(status) && std::all_of(listed.begin(), listed.end(), lies_below)) {
		record = WholeRecord(status, install_prefix, false);
	}
	return record;
}

InstalledFiles RebuiltRecord(const DatabaseStatus& status, const std::string& install_prefix) {
	InstalledFiles record = WholeRecord(status, install_prefix, false);
	if (ListsAllFiles(status)) {
		return record;
	}
	record.is_from_disk = true;
	std::vector<std::string> unlisted;
	for (const std::string& name : FilesBelow(install_prefix)) {
		if (record.files.count(name) == 0) {
			unlisted.push_back(name);
		}
	}
	Record(record, unlisted, install_prefix);
	return record;
}

} // namespace tarn::ctl
