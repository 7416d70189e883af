#include "publisher/tree_changes.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"
#include "publisher/device.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <map>

namespace tarn::publisher {

namespace {

// What devices append to the flat name while they work: the decoder's output, SQLite's companions.
constexpr std::size_t kMaxFlatName = 255 - 16;

UniqueFd OpenToRead(const std::string& path) {
	try {
		return OpenRegularFile(AT_FDCWD, path);
	} catch (const Error& error) {
		throw PublishError(path + " cannot be read: it " + error.what() + ".");
	}
}

bool IsUnchanged(const TreeFile& before, const TreeFile& after) {
	return before.size == after.size && before.executable == after.executable && SameBytes(before.source, after.source);
}

std::set<std::string> DirectoriesOf(const Tree& tree, const std::set<std::string>& names) {
	std::set<std::string> directories;
	const auto add = [&directories](const std::string& name) {
		for (std::size_t end = name.find('/'); end != std::string::npos; end = name.find('/', end + 1)) {
			directories.insert(name.substr(0, end));
		}
	};
	for (const TreeFile& file : tree.files) {
		add(file.name);
	}
	std::for_each(names.begin(), names.end(), add);
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

bool SameBytes(const std::string& left, const std::string& right) {
	constexpr std::size_t kBlock = std::size_t{256} << 10U;
	const UniqueFd one = OpenToRead(left);
	const UniqueFd other = OpenToRead(right);
	std::vector<char> first(kBlock);
	std::vector<char> second(kBlock);
	struct stat one_status {};
	struct stat other_status {};
	if (fstat(one.Get(), &one_status) != 0 || fstat(other.Get(), &other_status) != 0) {
		throw PublishError(ErrnoText(left + " or " + right + " cannot be read", errno) + ".");
	}
	const auto size = static_cast<std::uint64_t>(one_status.st_size);
	if (one_status.st_size != other_status.st_size) {
		return false;
	}
	for (std::uint64_t at = 0; at < size; at += kBlock) {
		const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, size - at));
		if (!ReadFullyAt(one.Get(), first.data(), part, at) || !ReadFullyAt(other.Get(), second.data(), part, at) ||
		    std::memcmp(first.data(), second.data(), part) != 0) {
			return false;
		}
	}
	return true;
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
	std::set<std::string> kept = DirectoriesOf(after, {});
	for (const TreeFile& file : after.files) {
		kept.insert(file.name);
	}
	const std::set<std::string> directories = DirectoriesOf(before, {});
	std::vector<std::string> emptied;
	std::set_difference(directories.begin(), directories.end(), kept.begin(), kept.end(), std::back_inserter(emptied));
	return emptied;
}

std::optional<std::string> FindNameConflict(
    const std::vector<TreeChange>& changes, const Tree& before, const std::set<std::string>& earlier) {
	const std::set<std::string> directories = DirectoriesOf(before, earlier);
	for (const TreeChange& change : changes) {
		if (change.after && directories.count(change.name) > 0) {
			return Quoted(change.name) + " is a file now and was a directory before";
		}
	}
	return FindCollision(changes, earlier);
}

} // namespace tarn::publisher
