/** @file What a site shows of a repository. */
#ifndef PUBLISHER_SITE_CATALOGUE_H
#define PUBLISHER_SITE_CATALOGUE_H

#include "publisher/packages/observer.h"
#include "publisher/repository/document.h"
#include "publisher/repository/repository.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::publisher::site {

/** One version of a database, as the packages say that are there. */
struct Version {
	int number = 0;
	std::optional<int> published; // seconds since 1970
	std::string notes;
	std::optional<std::uint64_t> full_size;
	std::optional<std::uint64_t> diff_size;
	std::uint64_t unpacked_size = 0; // where there is a full package
	std::uint64_t files = 0;
	std::optional<int> restores; // the version whose content a withdrawal brings back
	bool is_withdrawn = false;
	std::optional<int> withdrawn_by; // the version that took it back, where that is known
};

/** What one channel says about a database. */
struct Offer {
	std::string channel;
	Entry entry;
	bool is_deprecated = false;
	std::vector<std::uint64_t> chain; // sizes of the diff packages that lead to the version, the newest first
};

struct Database {
	std::string id;
	std::vector<Version> versions; // the newest first
	std::vector<Offer> offers;     // by channel
	std::vector<PackageFile> packages;
	std::set<int> compared; // versions whose changes have a page

	[[nodiscard]] const Version* Find(int version) const;
	/** The channels that offer a version. */
	[[nodiscard]] std::vector<std::string> ChannelsOf(int version) const;
	/** The offer of the default channel, or of the first one; null when no document names the database. */
	[[nodiscard]] const Offer* MainOffer() const;
};

/** A public key that signs packages. */
struct Key {
	std::string name;
	std::string fingerprint;
	std::string pem;
};

struct Catalogue {
	std::string title;
	std::string url;                            // of the site, without "/" at its end; empty when unknown
	std::vector<Database> databases;            // in byte order
	std::vector<std::string> channels;          // names of documents
	std::map<std::string, std::string> damaged; // sentences by the names of documents that cannot be read
	std::vector<Key> keys;
};

/**
 * Reads what documents and the heads of all packages say; checks no signature and no content. Writes nothing, and holds
 * publishers off for the moment in which names are listed.
 *
 * @param observer  gets a warning for each package and each entry that cannot be read, which are left out
 * @throws PublishError when the repository cannot be read
 */
[[nodiscard]] Catalogue ReadCatalogue(const std::string& repository, const PublishObserver& observer);

/** The keys of some files; throws PublishError. */
[[nodiscard]] std::vector<Key> ReadKeys(const std::vector<std::string>& files);

} // namespace tarn::publisher::site

#endif
