/** @file The pages of a site. */
#ifndef PUBLISHER_SITE_PAGES_H
#define PUBLISHER_SITE_PAGES_H

#include "publisher/changes/changes.h"
#include "publisher/site/catalogue.h"

#include <string>

namespace tarn::publisher::site {

/** As many versions as a database's own page lists; a page of its own lists all where there are more. */
constexpr std::size_t kVersionsOnPage = 100;

[[nodiscard]] std::string IndexPage(const Catalogue& catalogue);
[[nodiscard]] std::string ChannelsPage(const Catalogue& catalogue);
[[nodiscard]] std::string TrustPage(const Catalogue& catalogue);

[[nodiscard]] std::string DatabasePage(const Catalogue& catalogue, const Database& database);
[[nodiscard]] std::string VersionsPage(const Catalogue& catalogue, const Database& database);
/** What a release changes, as a part of a page. */
[[nodiscard]] std::string ViewChanges(const Changes& changes);
/** Counted in when what ViewChanges() makes is kept between runs: another number makes all of it again. */
constexpr int kChangesViewFormat = 1;
/**
 * @param from     the version before
 * @param changes  what ViewChanges() made
 */
[[nodiscard]] std::string ChangesPage(
    const Catalogue& catalogue, const Database& database, const Version& version, int from, const std::string& changes);

/** The feed of the newest releases, in Atom's form; every link begins with the catalogue's URL. */
[[nodiscard]] std::string Feed(const Catalogue& catalogue);

extern const char* const kStyleSheet;

} // namespace tarn::publisher::site

#endif
