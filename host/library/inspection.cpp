#include "host/library/inspection.h"

#include "base/sqlite_names.h"
#include "base/text.h"
#include "dataupdate/installation.h"
#include "dataupdate/updater.h"
#include "host/library/file_changes.h"

#include <boost/filesystem.hpp>

#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace tarn::ctl {

namespace fs = boost::filesystem;

namespace {

using dataupdate::DatabaseStatus;

std::string FullPath(const std::string& root, const std::string& name) {
	return fs::path(name).is_absolute() ? name : (fs::path(root) / name).string();
}

/** Why a file is bad, for people; the decision has been made already. */
std::string Reason(const std::string& path) {
	boost::system::error_code ignored;
	const fs::file_status status = fs::status(path, ignored);
	if (!fs::exists(status)) {
		return "is missing";
	}
	if (!fs::is_regular_file(status)) {
		return "is no regular file";
	}
	return access(path.c_str(), R_OK | W_OK) == 0 ? "has changed" : "cannot be opened for reading and writing";
}

bool IsLinkTo(const std::string& path, const std::string& target) {
	boost::system::error_code error;
	return fs::read_symlink(path, error) == target && !error;
}

/** A regular file itself, of the recorded size; what follows links or reads the file comes later. */
bool MayHold(const std::string& path, const InstalledFile& file) {
	boost::system::error_code error;
	const fs::file_status status = fs::symlink_status(path, error);
	return !fs::exists(status) ||
	       (fs::is_regular_file(status) && (!file.size || fs::file_size(path, error) == *file.size));
}

/** Whether a file is as recorded, as far as that can be told without reading it. */
bool MayBeAsRecorded(const std::string& name, const InstalledFile& file, const std::string& root) {
	const std::string path = FullPath(root, name);
	const bool may_be = file.link_target.empty() ? MayHold(path, file) : IsLinkTo(path, file.link_target);
	if (!may_be) {
		syslog(LOG_ERR, "File %s is not as recorded", path.c_str());
	}
	return may_be;
}

std::string Reason(const std::string& path, const InstalledFile& file) {
	boost::system::error_code ignored;
	const fs::file_status status = fs::symlink_status(path, ignored);
	if (!fs::exists(status)) {
		return "is missing";
	}
	if (!file.link_target.empty()) {
		return "is not the recorded link";
	}
	return fs::is_regular_file(status) ? Reason(path) : "is no regular file";
}

/** Whether a file is what SQLite keeps beside a recorded database while somebody reads it, and holds no data. */
bool IsOfReaders(const std::string& name, const InstalledFiles& record, const std::string& install_prefix) {
	for (const std::string_view suffix : kSqliteCompanions) {
		if (EndsWith(name, suffix) && record.files.count(name.substr(0, name.size() - suffix.size())) > 0) {
			boost::system::error_code error;
			const std::string path = FullPath(install_prefix, name);
			return fs::is_regular_file(fs::symlink_status(path, error)) &&
			       (suffix == kSqliteSharedMemory || fs::file_size(path, error) == 0);
		}
	}
	return false;
}

/** What is recorded. */
struct Known {
	DatabaseStatus status;
	bool is_unfinished;
	std::string install_prefix;
	std::optional<InstalledFiles> files;
};

Known ReadKnown(const Services& services, const std::string& id) {
	Known known;
	known.status = services.info->GetDatabaseStatus(id);
	known.is_unfinished = dataupdate::IsReplacementMarked(id);
	known.install_prefix = services.config->GetDatabaseConfig(id)->GetInstallPrefix();
	known.files = KnownFiles(id, known.status, known.install_prefix);
	return known;
}

Knowledge KnowledgeOf(const std::optional<InstalledFiles>& files) {
	if (!files) {
		return Knowledge::kListed;
	}
	return files->is_from_disk ? Knowledge::kFromDisk : Knowledge::kAll;
}

std::vector<BadFile> FindUnknown(const Known& known) {
	std::vector<BadFile> unknown;
	if (known.files) {
		for (const std::string& name : FindUnknownFiles(*known.files, known.install_prefix)) {
			unknown.push_back({name, known.install_prefix + "/" + name, "is unknown"});
		}
	}
	return unknown;
}

Findings Judge(const Known& known) {
	Findings found;
	found.status = known.status;
	found.is_unfinished = known.is_unfinished;
	found.knowledge = KnowledgeOf(known.files);
	found.bad = FindBadFiles(known.status, known.install_prefix);
	if (known.files) {
		const std::vector<BadFile> others = FindBadFiles(*known.files, known.status, known.install_prefix);
		found.bad.insert(found.bad.end(), others.begin(), others.end());
	}
	return found;
}

/** Leaves what has one of the names. */
template<typename Map>
void Restrict(Map& files, const std::set<std::string>& names) {
	for (auto entry = files.begin(); entry != files.end();) {
		entry = names.count(entry->first) == 0 ? files.erase(entry) : std::next(entry);
	}
}

/** Judges what was bad before, and of the unknown files whether they are there and unknown still. */
Findings JudgeAgain(Known known, const Findings& before) {
	std::vector<BadFile> unknown;
	for (const BadFile& file : before.unknown) {
		const bool exists = std::filesystem::exists(std::filesystem::symlink_status(file.path));
		if (exists && known.files && known.files->files.count(file.name) == 0) {
			unknown.push_back(file);
		}
	}
	std::set<std::string> names;
	for (const BadFile& file : before.bad) {
		names.insert(file.name);
	}
	const DatabaseStatus whole = known.status;
	if (known.files) {
		for (const auto& [name, status] : whole.file_statuses) {
			known.files->files.erase(RelativeName(name, known.install_prefix).value_or(name));
		}
		Restrict(known.files->files, names);
	}
	Restrict(known.status.file_statuses, names);
	Findings found = Judge(known);
	found.status = whole;
	found.unknown = std::move(unknown);
	return found;
}

} // namespace

std::vector<BadFile> FindBadFiles(
    const InstalledFiles& record, const dataupdate::DatabaseStatus& listed, const std::string& install_prefix) {
	std::set<std::string> elsewhere;
	for (const auto& [name, status] : listed.file_statuses) {
		elsewhere.insert(RelativeName(name, install_prefix).value_or(name));
	}
	std::set<std::string> names;
	std::map<std::string, dataupdate::FileStatus> contents;
	for (const auto& [name, file] : record.files) {
		if (elsewhere.count(name) > 0) {
			continue;
		}
		if (!MayBeAsRecorded(name, file, install_prefix)) {
			names.insert(name);
		} else if (file.link_target.empty()) {
			contents.emplace_hint(contents.end(), name, file.sha384_digest);
		}
	}
	for (std::string& name : dataupdate::FindBadFiles(contents, install_prefix)) {
		names.insert(std::move(name));
	}
	std::vector<BadFile> bad;
	for (const std::string& name : names) {
		const std::string path = FullPath(install_prefix, name);
		bad.push_back({name, path, Reason(path, record.files.at(name))});
	}
	return bad;
}

std::vector<std::string> FindUnknownFiles(const InstalledFiles& record, const std::string& install_prefix) {
	std::vector<std::string> unknown;
	for (const std::string& name : FilesBelow(install_prefix)) {
		if (record.files.count(name) == 0 && !IsOfReaders(name, record, install_prefix)) {
			unknown.push_back(name);
		}
	}
	return unknown;
}

std::vector<BadFile> FindBadFiles(const dataupdate::DatabaseStatus& status, const std::string& install_prefix) {
	std::vector<BadFile> bad;
	for (const std::string& name : dataupdate::FindBadFiles(status.file_statuses, install_prefix)) {
		const std::string path = FullPath(install_prefix, name);
		bad.push_back({name, path, Reason(path)});
	}
	return bad;
}

Findings Inspect(const Services& services, const std::string& id) {
	const Known known = ReadKnown(services, id);
	Findings found = Judge(known);
	found.unknown = FindUnknown(known);
	return found;
}

Findings InspectAgain(const Services& services, const std::string& id, const Findings& before) {
	Known known = ReadKnown(services, id);
	const bool is_same = known.status == before.status && !known.is_unfinished && !before.is_unfinished &&
	                     KnowledgeOf(known.files) == before.knowledge;
	if (is_same) {
		return JudgeAgain(std::move(known), before);
	}
	Findings found = Judge(known);
	found.unknown = FindUnknown(known);
	return found;
}

bool IsInstalled(const Services& services, const std::string& id) {
	try {
		return services.info->GetDatabaseStatus(id).data_version != -1;
	} catch (const std::exception&) {
		return true;
	}
}

} // namespace tarn::ctl
