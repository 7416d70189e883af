#ifndef TARNDBUDPUB_PUBLISH_H
#define TARNDBUDPUB_PUBLISH_H

#include "package.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tarn::publisher {

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
};

struct PublishResult {
	int data_version = 0;
	std::uint64_t files = 0;
	std::uint64_t tree_size = 0;
	std::uint64_t package_size = 0;
	std::string download_link;
};

/** Where publishing tells how it gets on. */
struct PublishObserver {
	std::function<void(const std::string& sentence)> warn = [](const std::string& /*sentence*/) {};
	std::function<void()> waiting = [] {};
	/** Called often, with totals to compare the two numbers done against. */
	std::function<void(std::uint64_t files, std::uint64_t bytes, const Tree& tree)> progress =
	    [](std::uint64_t /*files*/, std::uint64_t /*bytes*/, const Tree& /*tree*/) {};
};

/**
 * Publishes one version of a database: first its package, then the document that names it, each put in place whole.
 * At any moment, and after being killed at any moment, the repository serves the old state or the new one.
 *
 * A version is never published twice, and none that is not above the highest one that a document names: devices keep
 * what they have when the version does not grow, and a package that is announced must stay what it was.
 *
 * @throws UsageError for a value that can never work, PublishError otherwise
 */
PublishResult Publish(const PublishOptions& options, const PublishObserver& observer);

/** Throws UsageError when an option's value can never work. */
void CheckOptions(const PublishOptions& options);

} // namespace tarn::publisher

#endif
