/** @file Kits: one file of a document and its packages, for devices without a network. */
#ifndef PUBLISHER_KITS_EXPORT_H
#define PUBLISHER_KITS_EXPORT_H

#include "publisher/packages/observer.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

struct ExportOptions {
	std::string repository;
	std::string id;
	std::vector<std::string> also; // more databases, each by its full package
	std::string file;
	std::vector<std::string> keys; // public keys, one of which must have signed a package
	std::optional<int> from;       // the version that devices have; none for any
	bool with_full = false;        // whether the full package goes along with the chain from that version
	std::string db_version = "1";
};

/** What a kit holds of one database. */
struct ExportedDatabase {
	std::string id;
	int data_version = 0;
	bool has_full = false;
	std::size_t diffs = 0;
};

struct ExportResult {
	std::uint64_t size = 0;
	std::vector<ExportedDatabase> databases;
};

/**
 * Writes a kit of the newest version that the document names. The file appears whole: it is written beside under a
 * temporary name, read again and synced before it gets its name; what a killed run left is used again by the next.
 * Takes no lock and writes nothing into the repository.
 *
 * With a version to start from, a kit holds the diff packages that lead from there, and leaves the full package out;
 * where they have a gap, it holds the full package, which a warning says.
 *
 * @throws UsageError for a value that can never work, PublishError otherwise
 */
[[nodiscard]] ExportResult Export(const ExportOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
