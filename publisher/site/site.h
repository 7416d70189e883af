/** @file A catalogue of a repository for people: static pages and a feed. */
#ifndef PUBLISHER_SITE_SITE_H
#define PUBLISHER_SITE_SITE_H

#include "publisher/packages/observer.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher::site {

/** Releases of each database whose changes are shown, unless the options say otherwise. */
constexpr std::size_t kDefaultChanges = 5;

struct SiteOptions {
	std::string repository;
	std::string out;
	std::string title = "Data updates";
	std::string url;                    // where the site is served; empty to find out
	std::vector<std::string> keys;      // public keys that sign now, which the site shows
	std::vector<std::string> old_keys;  // public keys that signed earlier packages
	std::optional<std::size_t> changes; // newest releases of each database whose changes are shown
	std::size_t examples = 3;           // of rows, at most so many of each operation and table
};

struct SiteResult {
	std::uint64_t databases = 0;
	std::uint64_t versions = 0;
	std::uint64_t files = 0;
	std::uint64_t bytes = 0;
	std::uint64_t compared = 0; // releases whose changes were found now
	std::uint64_t kept = 0;     // releases whose changes an earlier run had found
	bool has_feed = false;
};

/**
 * Writes a site. It appears whole, in the place of an earlier one. Reads the heads of all packages, and the content of
 * those alone whose changes are to be shown and were not found before; only for these it writes to the repository, and
 * publishers wait.
 *
 * @throws UsageError for a value that can never work; PublishError otherwise
 */
SiteResult MakeSite(const SiteOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher::site

#endif
