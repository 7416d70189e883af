#include "host/library/inspection.h"

#include "base/sqlite_names.h"
#include "base/text.h"
#include "dataupdate/updater.h"
#include "host/library/file_changes.h"
#include "host/library/listed_files.h"

#include <boost/filesystem.hpp>

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace tarn::ctl {

namespace fs = boost::filesystem;

namespace {

using dataupdate::FileListing;
using dataupdate::InstalledRecord;

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
		if (EndsWith(name, suffix) && record.files.Has(std::string_view(name).substr(0, name.size() - suffix.size()))) {
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
	InstalledRecord listed;
	bool is_unfinished;
	std::string install_prefix;
	std::optional<InstalledFiles> files;
};

Known ReadKnown(const Services& services, const std::string& id) {
	Known known;
	known.listed = ReadInstalled(services, id);
	known.is_unfinished = dataupdate::IsReplacementMarked(id);
	known.install_prefix = services.config->GetDatabaseConfig(id)->GetInstallPrefix();
	known.files = KnownFiles(id, known.listed, known.install_prefix);
	return known;
}

Knowledge KnowledgeOf(const std::optional<InstalledFiles>& files) {
	if (!files) {
		return Knowledge::kListed;
	}
	return files->is_from_disk ? Knowledge::kFromDisk : Knowledge::kAll;
}

Findings JudgeAll(Known known) {
	std::vector<BadFile> bad = FindBadFiles(known.listed, known.install_prefix);
	std::vector<BadFile> unknown;
	if (known.files) {
		const std::vector<BadFile> others = FindBadFiles(*known.files, known.listed, known.install_prefix);
		bad.insert(bad.end(), others.begin(), others.end());
		for (const std::string& name : FindUnknownFiles(*known.files, known.install_prefix)) {
			unknown.push_back({name, known.install_prefix + "/" + name, "is unknown"});
		}
	}
	return {std::move(known.listed), known.is_unfinished, KnowledgeOf(known.files), std::move(bad), std::move(unknown)};
}

/** Judges what was bad before, and of the unknown files whether they are there and unknown still. */
Findings JudgeAgain(Known known, const Findings& before) {
	InstalledRecord listed;
	InstalledFiles others;
	for (const BadFile& file : before.bad) {
		if (const std::optional<std::string> digest = known.listed.files.TextOf(file.name)) {
			listed.files.Add(file.name, *digest);
		} else if (const auto other = known.files ? known.files->files.Find(file.name) : std::nullopt) {
			others.files.Add(file.name, *other);
		}
	}
	listed.files.Sort();
	others.files.Sort();
	std::vector<BadFile> bad = FindBadFiles(listed, known.install_prefix);
	const std::vector<BadFile> bad_others = FindBadFiles(others, InstalledRecord(), known.install_prefix);
	bad.insert(bad.end(), bad_others.begin(), bad_others.end());
	std::vector<BadFile> unknown;
	for (const BadFile& file : before.unknown) {
		const bool exists = std::filesystem::exists(std::filesystem::symlink_status(file.path));
		if (exists && known.files && !known.files->files.Has(file.name)) {
			unknown.push_back(file);
		}
	}
	return {std::move(known.listed), known.is_unfinished, KnowledgeOf(known.files), std::move(bad), std::move(unknown)};
}

/** Which files of the record the library lists, and checks. */
std::vector<bool> ListedOf(
    const InstalledFiles& record, const InstalledRecord& listed, const std::string& install_prefix) {
	std::vector<bool> are_listed(record.files.Size());
	for (std::size_t at = 0; at < listed.files.Size(); ++at) {
		const std::string name(listed.files.Name(at));
		if (const auto place = record.files.Place(RelativeName(name, install_prefix).value_or(name))) {
			are_listed[*place] = true;
		}
	}
	return are_listed;
}

} // namespace

std::vector<BadFile> FindBadFiles(
    const InstalledFiles& record, const InstalledRecord& listed, const std::string& install_prefix) {
	const std::vector<bool> are_listed = ListedOf(record, listed, install_prefix);
	std::set<std::string> names;
	std::vector<std::uint32_t> contents;
	for (std::size_t at = 0; at < record.files.Size(); ++at) {
		if (are_listed[at]) {
			continue;
		}
		const std::string name(record.files.Name(at));
		const InstalledFile file = record.files.At(at);
		if (!MayBeAsRecorded(name, file, install_prefix)) {
			names.insert(name);
		} else if (file.link_target.empty()) {
			contents.push_back(static_cast<std::uint32_t>(at));
		}
	}
	const FileListing listing = {contents.size(),
	    [&](std::size_t number) { return std::string(record.files.Name(contents[number])); },
	    [&](std::size_t number) { return record.files.At(contents[number]).sha384_digest; }};
	for (std::string& name : dataupdate::FindBadIn(listing, install_prefix)) {
		names.insert(std::move(name));
	}
	std::vector<BadFile> bad;
	for (const std::string& name : names) {
		const std::string path = FullPath(install_prefix, name);
		bad.push_back({name, path, Reason(path, record.files.Find(name).value())});
	}
	return bad;
}

std::vector<std::string> FindUnknownFiles(const InstalledFiles& record, const std::string& install_prefix) {
	std::vector<std::string> unknown;
	ForEachFileBelow(install_prefix, [&](const std::string& name) {
		if (!record.files.Has(name) && !IsOfReaders(name, record, install_prefix)) {
			unknown.push_back(name);
		}
	});
	std::sort(unknown.begin(), unknown.end());
	return unknown;
}

std::vector<BadFile> FindBadFiles(const InstalledRecord& listed, const std::string& install_prefix) {
	std::vector<BadFile> bad;
	for (const std::string& name : dataupdate::FindBadIn(dataupdate::ListingOf(listed.files), install_prefix)) {
		const std::string path = FullPath(install_prefix, name);
		bad.push_back({name, path, Reason(path)});
	}
	return bad;
}

Findings Inspect(const Services& services, const std::string& id) {
	return JudgeAll(ReadKnown(services, id));
}

Findings InspectAgain(const Services& services, const std::string& id, const Findings& before) {
	Known known = ReadKnown(services, id);
	const InstalledRecord& listed = known.listed;
	const bool is_same = listed.data_version == before.listed.data_version &&
	                     listed.last_fetch_time == before.listed.last_fetch_time &&
	                     listed.files == before.listed.files && !known.is_unfinished && !before.is_unfinished &&
	                     KnowledgeOf(known.files) == before.knowledge;
	return is_same ? JudgeAgain(std::move(known), before) : JudgeAll(std::move(known));
}

bool IsInstalled(const Services& services, const std::string& id) {
	try {
		return ReadInstalled(services, id).data_version != -1;
	} catch (const std::exception&) {
		return true;
	}
}

} // namespace tarn::ctl
