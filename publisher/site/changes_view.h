/** @file What a release changes, as a part of a page. */
#ifndef PUBLISHER_SITE_CHANGES_VIEW_H
#define PUBLISHER_SITE_CHANGES_VIEW_H

#include "publisher/changes/changes.h"

#include <string>

namespace tarn::publisher::site {

/** Counted in when changes are kept between runs: another number makes all of them again. */
constexpr int kChangesViewFormat = 1;

[[nodiscard]] std::string ViewChanges(const Changes& changes);

} // namespace tarn::publisher::site

#endif
