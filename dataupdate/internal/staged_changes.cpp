#include "dataupdate/internal/staged_changes.h"

#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/staged_tree.h"
#include "dataupdate/internal/strategy_steps.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <array>
#include <deque>
#include <set>
#include <system_error>
#include <utility>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

/** What changes right in a directory: how many entries, and which of them are directories. */
struct Level {
	std::size_t entries = 0;
	std::vector<std::string> directories;
};

/** An end of names that sorts behind everything below a directory. */
constexpr char kBehindSlash = '/' + 1;

bool HasChangesBelow(const Changes& changes, const std::string& name) {
	const std::string prefix = name + "/";
	const auto entry = changes.lower_bound(prefix);
	return entry != changes.end() && entry->first.compare(0, prefix.size(), prefix) == 0;
}

/** The prefix is empty or ends in a slash. A directory whose own name is changed as well is one entry. */
Level LevelBelow(const Changes& changes, const std::string& prefix) {
	Level level;
	auto entry = changes.lower_bound(prefix);
	while (entry != changes.end() && entry->first.compare(0, prefix.size(), prefix) == 0) {
		const std::string name = entry->first.substr(0, entry->first.find('/', prefix.size()));
		if (name == entry->first) {
			if (!HasChangesBelow(changes, name)) { // Else it is counted with these.
				++level.entries;
			}
			++entry;
		} else {
			++level.entries;
			level.directories.push_back(name);
			entry = changes.lower_bound(name + kBehindSlash);
		}
	}
	return level;
}

enum class Place { kDirectory, kFree, kTaken };

Place PlaceOf(const std::string& path) {
	struct stat status {};
	if (lstat(path.c_str(), &status) != 0) {
		return Place::kFree;
	}
	return S_ISDIR(status.st_mode) ? Place::kDirectory : Place::kTaken;
}

bool Rename(const std::string& from, const std::string& to, unsigned flags) {
	return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0;
}

std::string Above(const std::string& path) {
	return path.substr(0, path.rfind('/'));
}

/** Exchanges a directory; the one above it, in which no name changes, keeps its time. */
bool ExchangeDirectory(const std::string& staged, const std::string& installed) {
	const std::string above = Above(installed);
	struct stat before {};
	const bool is_known = stat(above.c_str(), &before) == 0;
	if (!Rename(staged, installed, RENAME_EXCHANGE)) {
		return false;
	}
	const std::array<timespec, 2> times = {timespec{0, UTIME_OMIT}, before.st_mtim};
	if (is_known) {
		utimensat(AT_FDCWD, above.c_str(), times.data(), 0); // Only what is shown of it is wrong after a failure.
	}
	return true;
}

} // namespace

std::vector<std::string> DirectoriesToExchange(
    const Changes& changes, const std::string& install_directory, std::size_t most_renames) {
	std::vector<std::string> chosen;
	if (changes.size() <= most_renames) {
		return chosen;
	}
	const Level top = LevelBelow(changes, "");
	std::size_t renames = top.entries;
	std::deque<std::string> open(top.directories.begin(), top.directories.end());
	for (; !open.empty(); open.pop_front()) {
		const std::string& name = open.front();
		const Place place = PlaceOf((fs::path(install_directory) / name).string());
		const Level level = LevelBelow(changes, name + "/");
		const std::size_t more = level.entries - 1 + changes.count(name);
		if (place == Place::kDirectory && (more == 0 || renames + more <= most_renames)) {
			renames += more;
			open.insert(open.end(), level.directories.begin(), level.directories.end());
		} else if (place != Place::kTaken) { // By a link, or by what comes there meanwhile.
			chosen.push_back(name);
		}
	}
	return chosen;
}

StagedChanges::StagedChanges(
    Changes changes, std::string install_directory, std::string place, std::size_t most_renames)
    : changes_(std::move(changes)),
      install_directory_(std::move(install_directory)),
      place_(std::move(place)),
      most_renames_(most_renames) {}

void StagedChanges::Stage() {
	const std::vector<std::string> names = DirectoriesToExchange(changes_, install_directory_, most_renames_);
	if (!names.empty() && _MakePlace()) {
		_StageDirectories(names);
	}
	if (!directories_.empty()) {
		_SetRemaining();
	}
	// What a rename needs of the disk is read now, rather than while readers wait.
	for (const auto& [name, info] : _Remaining()) {
		PlaceOf(_Installed(name));
	}
}

void StagedChanges::AddTo(PlanWriter& plan) const {
	for (const auto& [name, info] : changes_) {
		if (info.operation == ModifyInfo::kDelete) {
			plan.AddDeletion(name, info.source);
		} else {
			plan.AddFile(name, info.source);
		}
	}
}

void StagedChanges::Install() const {
	for (const Directory& directory : directories_) {
		if (!_MoveIn(directory)) {
			InstallChanges(changes_, install_directory_, Placing::kExchange, directory.name);
		}
	}
	InstallChanges(_Remaining(), install_directory_);
}

bool StagedChanges::_MakePlace() const {
	try {
		MakeEmptyDirectory(place_);
		// Installed directories that other users may write to have copies here which those users must not reach.
		fs::permissions(place_, fs::owner_all);
		return AreOnOneMount(place_, install_directory_);
	} catch (const std::exception& error) {
		TellSlowReplacement(error.what());
		return false;
	}
}

void StagedChanges::_SetRemaining() {
	std::set<std::string> exchanged; // with slashes, by which names are in the order of what is below them
	for (const Directory& directory : directories_) {
		exchanged.insert(directory.name + "/");
	}
	auto begin = changes_.begin();
	for (std::string end : exchanged) {
		remaining_.insert(begin, changes_.lower_bound(end));
		end.back() = kBehindSlash;
		begin = changes_.lower_bound(end);
	}
	remaining_.insert(begin, changes_.end());
	for (const Directory& directory : directories_) {
		remaining_.erase(directory.name);
	}
}

void StagedChanges::_StageDirectories(const std::vector<std::string>& names) {
	const ActivityScope activity(Phase::kUnpack, place_);
	std::string obstacle; // The first one: the others are likely to be the same.
	for (const std::string& name : names) {
		const std::string root = place_ + "/" + std::to_string(directories_.size());
		try {
			directories_.push_back(_StageDirectory(name, root));
		} catch (const std::exception& error) {
			obstacle = obstacle.empty() ? error.what() : obstacle;
			CleanTmpData(root);
		}
		InterruptionPoint(); // Being asked to end is no reason to give up the directory only.
	}
	if (!obstacle.empty()) {
		TellSlowReplacement(obstacle);
	}
}

StagedChanges::Directory StagedChanges::_StageDirectory(const std::string& name, const std::string& root) const {
	const std::string installed = _Installed(name);
	Directory directory = {name, root + "/" + name, std::nullopt, false};
	fs::create_directories(Above(directory.staged));
	if (PlaceOf(installed) == Place::kDirectory) {
		directory.tree.emplace(installed, directory.staged, [this, &name](const std::string& file) {
			const auto found = changes_.find(name + "/" + file);
			return found != changes_.end() && found->second.operation == ModifyInfo::kOverride;
		});
	} else if (HandsAttributesDown(Above(directory.staged)) || HandsAttributesDown(Above(installed))) {
		throw std::system_error(EOPNOTSUPP, std::system_category(), installed);
	}
	InstallChanges(changes_, root, Placing::kLink, name);
	directory.vanishes = PlaceOf(directory.staged) == Place::kFree;
	return directory;
}

bool StagedChanges::_MoveIn(const Directory& directory) const {
	const std::string installed = _Installed(directory.name);
	if (!directory.tree) {
		return Rename(directory.staged, installed, RENAME_NOREPLACE);
	}
	if (!directory.tree->IsCurrent()) {
		return false;
	}
	if (directory.vanishes) {
		return Rename(installed, directory.staged, RENAME_NOREPLACE);
	}
	return PlaceOf(directory.staged) == Place::kDirectory ? ExchangeDirectory(directory.staged, installed)
	                                                      : Rename(directory.staged, installed, RENAME_EXCHANGE);
}

} // namespace tarn::dataupdate
