#include "publisher/tree_changes.h"

#include "base/text.h"
#include "publisher/device.h"
#include "publisher/input_file.h"

#include <algorithm>
#include <iterator>
#include <map>

namespace tarn::publisher {

namespace {

// What devices append to the flat name while they work: the decoder's output, SQLite's companions.
constexpr std::size_t kMaxFlatName = 255 - 16;

bool IsUnchanged(const TreeFile& before, const TreeFile& after) {
	return before.size == after.size && before.executable == after.executable && SameBytes(before.source, after.source);
}

std::set<std::string> DirectoriesOf(const std::set<std::string>& names) {
	std::set<std::string> directories;
	for (const std::string& name : names) {
		ForEachParent(name, [&directories](const std::string& parent) { directories.insert(parent); });
	}
	return directories;
}

std::string Quoted(const std::string& name) {
	return "\"" + Printable(name) + "\"";
}

std::optional<std::string> FindCollision(const std::vector<TreeChange>& changes, const std::set<std::string>& earlier) {
	std::map<std::string, std::string> owners;
	for (const std::string& name : earlier) {
		owners.emplace(WorkingCopyName(name), name);
	}
	for (const TreeChange& change : changes) {
		const std::string flat = WorkingCopyName(change.name);
		const std::string& owner = owners.emplace(flat, change.name).first->second;
		if (owner != change.name) {
			return Quoted(owner) + " and " + Quoted(change.name) + R"( differ in "/" and "." alone)";
		}
		if (change.after && flat.size() > kMaxFlatName) {
			return "the name " + Quoted(change.name) + " is longer than " + std::to_string(kMaxFlatName) + " bytes";
		}
	}
	return std::nullopt;
}

} // namespace

std::vector<TreeChange> CompareTrees(const Tree& before, const Tree& after) {
	std::map<std::string, TreeChange> files;
	for (const TreeFile& file : before.files) {
		files[file.name].before = file;
	}
	for (const TreeFile& file : after.files) {
		files[file.name].after = file;
	}
	std::vector<TreeChange> changes;
	for (auto& [name, change] : files) {
		if (!change.before || !change.after || !IsUnchanged(*change.before, *change.after)) {
			change.name = name;
			changes.push_back(std::move(change));
		}
	}
	return changes;
}

std::vector<std::string> EmptiedDirectories(const Tree& before, const Tree& after) {
	std::set<std::string> kept = NamesOf(after);
	kept.merge(DirectoriesOf(kept));
	const std::set<std::string> directories = DirectoriesOf(NamesOf(before));
	std::vector<std::string> emptied;
	std::set_difference(directories.begin(), directories.end(), kept.begin(), kept.end(), std::back_inserter(emptied));
	return emptied;
}

std::optional<std::string> FindNameConflict(
    const std::vector<TreeChange>& changes, const Tree& before, const std::set<std::string>& earlier) {
	std::set<std::string> names = NamesOf(before);
	names.insert(earlier.begin(), earlier.end());
	const std::set<std::string> directories = DirectoriesOf(names);
	for (const TreeChange& change : changes) {
		if (change.after && directories.count(change.name) > 0) {
			return Quoted(change.name) + " is a file now and was a directory before";
		}
	}
	return FindCollision(changes, earlier);
}

} // namespace tarn::publisher
