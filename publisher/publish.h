#ifndef PUBLISHER_PUBLISH_H
#define PUBLISHER_PUBLISH_H

#include "publisher/package.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

constexpr int kDefaultKeepDiffs = 30;
constexpr std::int64_t kMaxNumber = std::numeric_limits<int>::max(); // of versions and times, as devices read them

struct PublishOptions {
	std::string tree;
	std::string repository;
	std::string id;
	std::string key_file;
	std::string url; // what the repository is served as, without a "/" at its end
	std::optional<std::int64_t> data_version;
	std::string format_version = "1";
	std::string db_version = "1";
	int level = kDefaultLevel;
	int keep_diffs = kDefaultKeepDiffs;
	std::vector<std::string> old_keys; // public keys that signed earlier packages
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
	int oldest_base = 0;      // the oldest version from which devices come by diff packages alone
};

struct PublishResult {
	int data_version = 0;
	bool is_first = false; // whether the repository knew nothing of the database before
	std::uint64_t files = 0;
	std::uint64_t tree_size = 0;
	std::uint64_t package_size = 0;
	std::string download_link;
	std::optional<DiffResult> diff;
};

/** Where publishing tells how it gets on. */
struct PublishObserver {
	std::function<void(const std::string& sentence)> warn = [](const std::string& /*sentence*/) {};
	std::function<void()> waiting = [] {};
	/** Called often, with totals to compare the two numbers done against. */
	std::function<void(std::uint64_t files, std::uint64_t bytes, const Tree& tree)> progress =
	    [](std::uint64_t /*files*/, std::uint64_t /*bytes*/, const Tree& /*tree*/) {};
	/** Called by one thread at a time while a diff is made: what is being done, and how many parts of it are. */
	std::function<void(const std::string& what, std::uint64_t done, std::uint64_t all)> step =
	    [](const std::string& /*what*/, std::uint64_t /*done*/, std::uint64_t /*all*/) {};
};

/**
 * Publishes one version of a database: first its packages, then the document that names them, each put in place whole.
 * When the version before it is published, a diff package from there is one of them; without one, for whatever reason,
 * the version is published all the same, and devices take the full package. At any moment, and after being killed at
 * any moment, the repository serves the old state or the new one.
 *
 * A version is never published twice, and none that is not above the highest one that a document names or that is there
 * as a package: devices keep what they have when the version does not grow, and a package that is announced must stay
 * what it was. A full package that a killed publisher left is published when the tree makes the same bytes once more,
 * and is never replaced by others.
 *
 * @throws UsageError for a value that can never work, PublishError otherwise
 */
PublishResult Publish(const PublishOptions& options, const PublishObserver& observer);

/** Throws UsageError when an option's value can never work. */
void CheckOptions(const PublishOptions& options);

} // namespace tarn::publisher

#endif
