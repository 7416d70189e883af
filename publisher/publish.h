/** @file Publishing one version. */
#ifndef PUBLISHER_PUBLISH_H
#define PUBLISHER_PUBLISH_H

#include "archive/packer.h"
#include "publisher/document.h"
#include "publisher/package.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

constexpr std::int64_t kMinMemoryMib = 16;
constexpr std::int64_t kMaxMemoryMib = 1 << 20;
/** Enough for files of 650 MiB to be patched as a whole. */
constexpr std::int64_t kDefaultMemoryMib = 2048;

struct PublishOptions {
	std::string tree;
	std::string repository;
	std::string id;
	std::string key_file;
	std::string url; // what the repository is served as, without a "/" at its end
	std::optional<std::int64_t> data_version;
	std::string format_version = "1";
	std::string db_version = "1";
	int level = archive::kDefaultLevel;
	std::int64_t memory_mib = kDefaultMemoryMib; // for making patches and matching rows
	KeptDiffs keep_diffs;
	std::vector<std::string> old_keys; // public keys that signed earlier packages
	std::string notes;                 // what the packages say about the version
	bool if_changed = false;           // whether nothing is published when the newest version holds the tree
	bool even_withdrawn = false;       // whether the content of a withdrawn version is published again
	bool must_continue = false;        // whether a database that the repository does not know is refused
};

/** A diff package that was made, and how many files it changes in which way. */
struct DiffResult {
	std::uint64_t package_size = 0;
	std::uint64_t created = 0;
	std::uint64_t replaced = 0; // whole, though there was a file before
	std::uint64_t patched = 0;
	std::uint64_t scripted = 0;
	std::uint64_t deleted = 0;
	std::vector<int> earlier; // versions of the packages before it that still lead up to it, oldest first
	int oldest_base = 0;      // the oldest version that needs no full package
};

struct PublishResult {
	int data_version = 0;
	bool is_unchanged = false; // whether the newest version holds the tree, and nothing was published
	bool is_first = false;     // whether the repository knew nothing of the database before
	std::uint64_t files = 0;
	std::uint64_t tree_size = 0;
	std::uint64_t package_size = 0;
	std::string download_link;
	std::optional<DiffResult> diff;
};

/** Gets warnings and progress. */
struct PublishObserver {
	std::function<void(const std::string& sentence)> warn = [](const std::string& /*sentence*/) {};
	std::function<void()> waiting = [] {};
	/** Called often, with what is done so far and the tree that holds the totals. */
	std::function<void(std::uint64_t files, std::uint64_t bytes, const Tree& tree)> progress =
	    [](std::uint64_t /*files*/, std::uint64_t /*bytes*/, const Tree& /*tree*/) {};
	/** Called by one thread at a time while a diff is made: which step, and how many of its parts are done. */
	std::function<void(const std::string& what, std::uint64_t done, std::uint64_t all)> step =
	    [](const std::string& /*what*/, std::uint64_t /*done*/, std::uint64_t /*all*/) {};
};

/**
 * Publishes one version of a database: first its packages, then the document that names them. Each file appears whole.
 * At any moment, also after a publisher was killed, the repository serves the old state or the new state.
 *
 * A diff package from the version before is made when that version is published. When no diff package can be made, the
 * version is published without, and devices take the full package. RequireOwnPackage() refuses another key.
 *
 * The version must be above every version that a document names or that is there as a package: devices take higher
 * versions only, and a package that was announced must never change. A full package that a killed publisher left is
 * published when the tree makes the same bytes again, and is never replaced by other bytes.
 *
 * @throws UsageError for a value that can never work; PublishError, or the archive's Error, otherwise
 */
PublishResult Publish(const PublishOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
