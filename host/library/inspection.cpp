#include "host/library/inspection.h"

#include "dataupdate/installation.h"
#include "host/library/file_changes.h"

#include <filesystem>
#include <optional>
#include <set>
#include <utility>

namespace tarn::ctl {

namespace {

using dataupdate::DatabaseStatus;

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

} // namespace tarn::ctl
