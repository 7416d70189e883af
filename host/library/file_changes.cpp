#include "host/library/file_changes.h"

#include "dataupdate/updater.h"
#include "dataupdate/utils.h"
#include "host/library/failure.h"
#include "host/library/listed_files.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn::ctl {

namespace fs = std::filesystem;

using dataupdate::FileList;
using dataupdate::InstalledRecord;

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

/** A regular file or a link as it lies on the disk, without a digest; anything else is brought by no package. */
std::optional<InstalledFile> Describe(const fs::path& path) {
	const struct stat status = StatusOf(path);
	InstalledFile file;
	if (S_ISLNK(status.st_mode)) {
		file.link_target = fs::read_symlink(path).string();
		return file;
	}
	file.size = static_cast<std::uint64_t>(status.st_size);
	return S_ISREG(status.st_mode) ? std::optional(file) : std::nullopt;
}

/** The library takes a file that it cannot open for an empty one. */
void RequireDigest(const std::string& digest, const InstalledFile& file, const fs::path& path) {
	if (digest.empty()) {
		Refuse(path, std::strerror(ENOENT));
	}
	if (digest == DigestOfNothing() && file.size != 0) {
		Refuse(path, "it cannot be opened for reading and writing");
	}
}

/** Files recorded as they lie on the disk, read by several threads. */
InstalledFileTable RecordOf(FileList names, const fs::path& root) {
	FileList regular;
	InstalledFileTable recorded;
	for (std::size_t at = 0; at < names.Size(); ++at) {
		const std::string name(names.Name(at));
		const std::optional<InstalledFile> file = Describe(root / name);
		if (file && file->link_target.empty()) {
			regular.Add(name);
		} else if (file) {
			recorded.Add(name, *file);
		}
	}
	names = FileList();
	FileList digests = dataupdate::CalculateDigests(std::move(regular), root.string());
	for (std::size_t at = 0; at < digests.Size(); ++at) {
		const std::string name(digests.Name(at));
		InstalledFile file = Describe(root / name).value_or(InstalledFile());
		file.sha384_digest = digests.Text(at);
		RequireDigest(file.sha384_digest, file, root / name);
		recorded.Add(name, file);
		digests.FreeBefore(at);
	}
	recorded.Sort();
	return recorded;
}

/** A file of a known digest. */
InstalledFile Known(const std::string& digest, const fs::path& path, bool is_fresh) {
	InstalledFile file;
	file.sha384_digest = digest;
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

/** Adds one file that the library has a digest of; not what is gone. */
void AddKnown(const FileList& files, std::size_t at, const std::string& install_prefix, bool is_fresh,
    InstalledFileTable& table) {
	const std::string relative = NameOrRefuse(std::string(files.Name(at)), install_prefix);
	const fs::path path = fs::path(install_prefix) / relative;
	const std::string digest = files.Text(at);
	if (files.HasText(at) && !IsListedDirectory(digest, path)) {
		table.Add(relative, Known(digest, path, is_fresh));
	}
}

/** Adds the files of an earlier record that are to be kept, unless there is a newer entry. */
template<typename IsKept>
void AddEarlier(InstalledFileTable before, const IsKept& is_kept, InstalledFileTable& table) {
	std::vector<std::uint32_t> kept;
	table.Sort();
	for (std::size_t at = 0; at < before.Size(); ++at) {
		if (!table.Has(before.Name(at)) && is_kept(before.Name(at))) {
			kept.push_back(static_cast<std::uint32_t>(at));
		}
	}
	auto next = kept.begin();
	for (std::size_t at = 0; at < before.Size(); ++at) {
		before.FreeBefore(at);
		if (next != kept.end() && *next == at) {
			table.Add(before.Name(at), before.At(at));
			++next;
		}
	}
	table.Sort();
}

/** The names of an earlier record whose place a directory of a package has taken. */
std::set<std::string> DirectoriesNow(const InstalledFiles& before, const FileList& earlier, const fs::path& root) {
	std::set<std::string> directories;
	for (std::size_t at = 0; at < before.files.Size(); ++at) {
		const std::string name(before.files.Name(at));
		if (earlier.Find(name) && fs::is_directory(fs::symlink_status(root / name))) {
			directories.insert(name);
		}
	}
	return directories;
}

/** What changes whenever a file is written or replaced, in few bytes; nothing of what has vanished. */
std::string IdentityOf(const fs::path& path) {
	struct stat status {};
	if (lstat(path.c_str(), &status) != 0) {
		return "";
	}
	const std::array<std::uint64_t, 7> parts = {status.st_dev, status.st_ino,
	    static_cast<std::uint64_t>(status.st_size), static_cast<std::uint64_t>(status.st_mtim.tv_sec),
	    static_cast<std::uint64_t>(status.st_mtim.tv_nsec), static_cast<std::uint64_t>(status.st_ctim.tv_sec),
	    static_cast<std::uint64_t>(status.st_ctim.tv_nsec)};
	// Equal by chance for one change in 2^64.
	const std::size_t hash = std::hash<std::string_view>()({reinterpret_cast<const char*>(parts.data()), sizeof parts});
	return {reinterpret_cast<const char*>(&hash), sizeof hash};
}

} // namespace

void ForEachFileBelow(const std::string& directory, const std::function<void(const std::string& name)>& visit) {
	if (!fs::is_directory(directory)) {
		return;
	}
	const std::size_t prefix = directory.size() + 1;
	dataupdate::IOUtils().IterateDirectory(
	    directory,
	    [&](const std::string& entry) {
		    if (!fs::is_directory(fs::symlink_status(entry))) {
			    visit(entry.substr(prefix));
		    }
	    },
	    true);
}

FileList IdentitiesBelow(const std::string& directory) {
	FileList identities;
	ForEachFileBelow(directory, [&](const std::string& name) {
		const std::string identity = IdentityOf(fs::path(directory) / name);
		if (!identity.empty()) {
			identities.Add(name, identity);
		}
	});
	identities.Sort();
	return identities;
}

InstalledFiles WholeRecord(const InstalledRecord& listed, const std::string& install_prefix, bool are_fresh) {
	InstalledFiles record;
	record.data_version = listed.data_version;
	for (std::size_t at = 0; at < listed.files.Size(); ++at) {
		AddKnown(listed.files, at, install_prefix, are_fresh, record.files);
	}
	record.files.Sort();
	return record;
}

InstalledFiles WholeRecord(InstalledRecord&& listed, const std::string& install_prefix, bool are_fresh) {
	InstalledFiles record;
	record.data_version = listed.data_version;
	for (std::size_t at = 0; at < listed.files.Size(); ++at) {
		listed.files.FreeBefore(at);
		AddKnown(listed.files, at, install_prefix, are_fresh, record.files);
	}
	record.files.Sort();
	return record;
}

InstalledFiles CarryThroughDiff(
    InstalledFiles before, const InstalledRecord& changed, const std::string& install_prefix) {
	FileList replaced;
	InstalledFiles now;
	now.data_version = changed.data_version;
	now.is_from_disk = before.is_from_disk;
	for (std::size_t at = 0; at < changed.files.Size(); ++at) {
		replaced.Add(NameOrRefuse(std::string(changed.files.Name(at)), install_prefix));
		AddKnown(changed.files, at, install_prefix, true, now.files);
	}
	replaced.Sort();
	AddEarlier(
	    std::move(before.files), [&](std::string_view name) { return !replaced.Find(name); }, now.files);
	return now;
}

InstalledFiles CarryThroughForced(
    InstalledFiles before, FileList identities, int data_version, const std::string& install_prefix) {
	const fs::path root = install_prefix;
	FileList changed;
	ForEachFileBelow(install_prefix, [&](const std::string& name) {
		const std::string identity = IdentityOf(root / name);
		if (!identity.empty() && identities.TextOf(name) != identity) {
			changed.Add(name);
		}
	});
	changed.Sort();
	const std::set<std::string> directories = DirectoriesNow(before, identities, root);
	identities = FileList();
	InstalledFiles now;
	now.data_version = data_version;
	now.is_from_disk = before.is_from_disk;
	now.files = RecordOf(std::move(changed), root);
	const auto is_kept = [&](std::string_view name) { return directories.count(std::string(name)) == 0; };
	AddEarlier(std::move(before.files), is_kept, now.files);
	return now;
}

std::optional<InstalledFiles> KnownFiles(
    const std::string& id, const InstalledRecord& listed, const std::string& install_prefix) {
	std::optional<InstalledFiles> record = ReadCredibleFiles(id, listed, install_prefix);
	if (record || !ListsAllFiles(listed)) {
		return record;
	}
	for (std::size_t at = 0; at < listed.files.Size(); ++at) {
		if (!RelativeName(std::string(listed.files.Name(at)), install_prefix)) {
			return std::nullopt;
		}
	}
	return WholeRecord(listed, install_prefix, false);
}

InstalledFiles RebuiltRecord(const InstalledRecord& listed, const std::string& install_prefix) {
	InstalledFiles record = WholeRecord(listed, install_prefix, false);
	if (ListsAllFiles(listed)) {
		return record;
	}
	record.is_from_disk = true;
	FileList unlisted;
	ForEachFileBelow(install_prefix, [&](const std::string& name) {
		if (!record.files.Has(name)) {
			unlisted.Add(name);
		}
	});
	unlisted.Sort();
	AddEarlier(
	    RecordOf(std::move(unlisted), install_prefix), [](std::string_view) { return true; }, record.files);
	return record;
}

} // namespace tarn::ctl
