/** @file Making one diff package. */
#ifndef PUBLISHER_DIFF_DIFF_MAKER_H
#define PUBLISHER_DIFF_DIFF_MAKER_H

#include "publisher/packages/observer.h"
#include "publisher/packages/package.h"
#include "publisher/repository/publish_options.h"
#include "publisher/repository/repository.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::publisher {

/** Which diff package is made, and from what. */
struct DiffOrder {
	const Repository& repository;
	const PublishOptions& options;
	const archive::SigningKey& key;
	const PackageReader& reader;
	const Entry& previous;   // the document's entry so far, of the version before
	std::string new_package; // the full package, still under its temporary name
	std::uint64_t new_package_size = 0;
	int published = 0; // when, in seconds since 1970
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

/** Throws PublishError for a diff package that costs devices no less than the full one, or is too large to be named. */
void RequireWorthwhile(std::uint64_t size, std::uint64_t full_size);

/**
 * Writes the diff package that leads from the previous version to the next, and applies it as devices do: the result
 * must be what the full package holds.
 *
 * @param archive_fd  an empty file, open for writing
 * @param path        its path
 * @throws PublishError, or the archive's Error, saying why there is no diff; the file may then hold anything
 */
[[nodiscard]] DiffResult MakeDiff(
    const DiffOrder& order, int archive_fd, const std::string& path, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
