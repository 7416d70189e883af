/** @file Rebuilding a lost document from the packages. */
#ifndef PUBLISHER_RELEASES_RESTORE_H
#define PUBLISHER_RELEASES_RESTORE_H

#include "publisher/packages/observer.h"
#include "publisher/repository/document.h"

#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

struct RestoreOptions {
	std::string repository;
	std::vector<std::string> keys; // public keys, one of which must have signed a package
	std::string url;               // where the repository is served; empty for what the last publisher said
	std::vector<std::string> ids;  // empty for every database of which there are packages
	std::string db_version = "1";
	std::optional<std::string> format_version; // packages of others are left out
	std::optional<std::int64_t> data_version;  // the highest version that is named; else the newest package's
	KeptDiffs keep_diffs;
	bool force = false; // whether entries that the document has are replaced
};

/** One database of a document that was rebuilt. */
struct RestoredDatabase {
	std::string id;
	bool was_named = false; // the document names it already, and its entry stays
	int data_version = 0;
	std::size_t diffs = 0;
	int oldest_base = 0; // the oldest version that needs no full package
	std::string download_link;
};

struct RestoreResult {
	std::string document;
	bool is_written = false;
	std::vector<RestoredDatabase> databases;
	std::vector<std::string> failures; // sentences about databases that the document does not name now
};

/**
 * Rebuilds a document that is lost, damaged, or lacks a database, from the signed metadata of the packages: for each
 * database the newest full package, and the diff packages that lead to its version without a gap, as many as are kept.
 * The document appears whole; packages are only read. A document that can be read keeps its entries, unless the options
 * say otherwise, and everything else that it holds.
 *
 * Packages do not tell for which channel they were published, so the newest may have been on trial in another one; a
 * warning says so where another document names the same version.
 *
 * A version of which only a diff package is left is not named, since a new device would find no full package. Devices
 * that have this version wait for a higher version, which a warning names.
 *
 * @param observer  gets a warning for every package that cannot be used
 * @throws UsageError for a value that can never work, PublishError otherwise
 */
RestoreResult Restore(const RestoreOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
