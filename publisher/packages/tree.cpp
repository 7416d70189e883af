#include "publisher/packages/tree.h"

#include "archive/extractor.h"
#include "archive/members.h"
#include "base/sqlite_names.h"
#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/common/utf8.h"
#include "publisher/packages/device.h"

#include <algorithm>
#include <iterator>
#include <map>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

std::string Quoted(const std::string& name) {
	return "\"" + Printable(name) + "\"";
}

[[noreturn]] void Refuse(const std::string& name, const std::string& reason) {
	throw PublishError(Quoted(name) + " cannot be published: " + reason + ".");
}

bool IsUtf8(std::string_view text) {
	while (!text.empty() && TakeCharacter(text)) {
	}
	return text.empty();
}

void CheckName(const std::string& name) {
	if (!IsUtf8(name)) {
		Refuse(name, "its name is not valid UTF-8, which the list of installed files could not hold");
	}
	if (name.find(':') != std::string::npos || name.find('\n') != std::string::npos) {
		Refuse(name, "hooks get names separated by ':' and scripts by newlines, so that no name may hold one");
	}
	if (name.size() > kMaxNameLength) {
		Refuse(name, "its name is longer than " + std::to_string(kMaxNameLength) + " bytes");
	}
}

/** To be called before a directory is opened, since the walk holds a descriptor for each level. */
void CheckDepth(int above, const std::string& name) {
	if (static_cast<std::size_t>(above) >= archive::kMaxDepth) {
		Refuse(name, "its name has more than " + std::to_string(archive::kMaxDepth) + " components");
	}
}

/** The file that a link leads to. */
fs::path ResolveLink(const fs::path& link, const std::string& name, const fs::path& root) {
	std::error_code error;
	fs::path target = fs::canonical(link, error);
	if (error) {
		Refuse(name, "it is a symbolic link that leads nowhere");
	}
	if (!IsBeneath(target, root)) {
		Refuse(name, "it is a symbolic link out of the tree, to " + Printable(target.string()));
	}
	if (!fs::is_regular_file(target)) {
		Refuse(name, "it is a symbolic link to something else than a file; devices install files only");
	}
	return target;
}

TreeFile Describe(const fs::directory_entry& entry, const std::string& name, const fs::path& root) {
	const fs::path source = entry.is_symlink() ? ResolveLink(entry.path(), name, root) : entry.path();
	if (!fs::exists(source)) {
		RefuseVanished(name);
	}
	if (!fs::is_regular_file(source)) {
		Refuse(name, "it is a device, a FIFO or a socket");
	}
	constexpr fs::perms kExecutable = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
	const bool executable = (fs::status(source).permissions() & kExecutable) != fs::perms::none;
	return {name, source.string(), fs::file_size(source), executable};
}

void CheckLimits(const Tree& tree, const std::string& root) {
	const archive::Limits limits;
	if (tree.files.empty()) {
		throw PublishError("The tree " + root + " holds no files; devices would delete what they have installed.");
	}
	if (tree.files.size() > limits.entries || tree.total_size > limits.bytes) {
		throw PublishError("The tree " + root + " holds " + std::to_string(tree.files.size()) + " files with " +
		                   std::to_string(tree.total_size) + " bytes; devices accept " +
		                   std::to_string(limits.entries) + " files with " + std::to_string(limits.bytes) + " bytes.");
	}
}

// What devices append to the flat name while they work: the decoder's output, SQLite's companions.
constexpr std::size_t kMaxFlatName = 255 - 16;

bool IsUnchanged(const TreeFile& before, const TreeFile& after) {
	return before.size == after.size && before.executable == after.executable &&
	       (fs::equivalent(before.source, after.source) || SameBytes(before.source, after.source));
}

std::set<std::string> DirectoriesOf(const std::set<std::string>& names) {
	std::set<std::string> directories;
	for (const std::string& name : names) {
		ForEachParent(name, [&directories](const std::string& parent) { directories.insert(parent); });
	}
	return directories;
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

std::set<std::string> NamesOf(const Tree& tree) {
	std::set<std::string> names;
	for (const TreeFile& file : tree.files) {
		names.insert(file.name);
	}
	return names;
}

bool HasCompanion(const std::string& name, const std::set<std::string>& names) {
	return std::any_of(kSqliteCompanions.begin(), kSqliteCompanions.end(),
	    [&](const char* suffix) { return names.count(name + suffix) > 0; });
}

void AddJournals(std::set<std::string>& changed, const Tree& after) {
	std::set<std::string> replaced;
	for (const TreeFile& file : after.files) { // A journal sorts after the file, and can have a journal itself.
		const auto is_beside_replaced = [&](const std::string& suffix) {
			return EndsWith(file.name, suffix) &&
			       replaced.count(file.name.substr(0, file.name.size() - suffix.size())) > 0;
		};
		if (changed.count(file.name) > 0 ||
		    (file.size > 0 && (is_beside_replaced(kSqliteLog) || is_beside_replaced(kSqliteJournal)))) {
			replaced.insert(file.name);
		}
	}
	changed.merge(replaced);
}

bool IsBeneath(const fs::path& path, const fs::path& root) {
	return std::mismatch(root.begin(), root.end(), path.begin(), path.end()).first == root.end();
}

void RefuseVanished(const std::string& name) {
	throw PublishError(Quoted(name) + " vanished while it was read; publish a tree at rest.");
}

Tree ListTree(const std::string& root) {
	Tree tree;
	try {
		const fs::path base = fs::canonical(root);
		for (auto at = fs::recursive_directory_iterator(base); at != fs::recursive_directory_iterator(); ++at) {
			const fs::directory_entry& entry = *at;
			const std::string name = entry.path().lexically_relative(base).string();
			CheckDepth(at.depth(), name);
			if (!entry.is_symlink() && entry.is_directory()) {
				if (fs::is_empty(entry.path())) {
					++tree.empty_directories;
				}
				continue;
			}
			CheckName(name);
			tree.files.push_back(Describe(entry, name, base));
			tree.total_size += tree.files.back().size;
		}
	} catch (const fs::filesystem_error& error) {
		if (error.code() == std::errc::no_such_file_or_directory && fs::is_directory(root)) {
			RefuseVanished(error.path1().string());
		}
		throw PublishError("The tree " + root + " cannot be read: " + Printable(error.path1().string()) + ": " +
		                   error.code().message() + ".");
	}
	CheckLimits(tree, root);
	std::sort(tree.files.begin(), tree.files.end(),
	    [](const TreeFile& left, const TreeFile& right) { return left.name < right.name; });
	return tree;
}

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
