/** @file A directory tree of a database, and what changed between two of them. */
#ifndef PUBLISHER_PACKAGES_TREE_H
#define PUBLISHER_PACKAGES_TREE_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::publisher {

/** One file to publish. */
struct TreeFile {
	std::string name;   // relative to the tree, "/" between components
	std::string source; // where its content is read; a link's target for a link
	std::uint64_t size = 0;
	bool executable = false;
};

/** What a tree holds, in byte order of the names. */
struct Tree {
	std::vector<TreeFile> files;
	std::uint64_t total_size = 0;
	std::uint64_t empty_directories = 0; // which devices do not install
};

/** Names of this length stay below PATH_MAX in every directory of a device. */
constexpr std::size_t kMaxNameLength = 3000;

/**
 * Lists a tree and refuses what devices could not install.
 *
 * @throws PublishError naming the file: a link out of the tree, to a directory or to nothing; a device, FIFO or
 *         socket; a name with ':' or a newline (hooks and scripts separate names by them), longer than
 *         kMaxNameLength or not UTF-8; a tree without files, or with more files or bytes than devices accept
 */
Tree ListTree(const std::string& root);

/** Throws the PublishError for a file that has vanished since the tree was listed. */
[[noreturn]] void RefuseVanished(const std::string& name);

std::set<std::string> NamesOf(const Tree& tree);

/** Whether one of the files that SQLite keeps beside a database of this name is among the names. */
[[nodiscard]] bool HasCompanion(const std::string& name, const std::set<std::string>& names);

/**
 * Adds to the names of changed files the journals with content in the new tree that lie beside one of them. Devices
 * refuse to replace a file beside such a journal, unless their packages name the journal.
 */
void AddJournals(std::set<std::string>& changed, const Tree& after);

/** Whether a path is a directory or lies below it; both are canonical. */
[[nodiscard]] bool IsBeneath(const std::filesystem::path& path, const std::filesystem::path& directory);

/** Calls back with each directory above a name of a tree, the highest first. */
template<typename Callback>
void ForEachParent(const std::string& name, const Callback& callback) {
	for (std::size_t end = name.find('/'); end != std::string::npos; end = name.find('/', end + 1)) {
		callback(name.substr(0, end));
	}
}

/** A file that differs between two trees, in its bytes or in whether it is executable. */
struct TreeChange {
	std::string name;
	std::optional<TreeFile> before; // none when it is new
	std::optional<TreeFile> after;  // none when it has vanished
};

/** What differs between two trees, in byte order of names; throws PublishError when a file cannot be read. */
[[nodiscard]] std::vector<TreeChange> CompareTrees(const Tree& before, const Tree& after);

/**
 * The directories of one tree that the other lacks, in byte order of names. Leaves out the name of a directory that is
 * a file in the other tree.
 */
[[nodiscard]] std::vector<std::string> EmptiedDirectories(const Tree& before, const Tree& after);

/**
 * Why devices could not apply changes; no value when they can. Devices build changed files under flat names in one
 * directory, and put them in place in order of names, each by removing what is there.
 *
 * @param before   the tree that is changed
 * @param earlier  names that earlier packages of the same chain change
 */
[[nodiscard]] std::optional<std::string> FindNameConflict(
    const std::vector<TreeChange>& changes, const Tree& before, const std::set<std::string>& earlier);

} // namespace tarn::publisher

#endif
