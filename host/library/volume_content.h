/** @file The databases on a volume: their marks and records, and the volume's adoption. */
#ifndef HOST_LIBRARY_VOLUME_CONTENT_H
#define HOST_LIBRARY_VOLUME_CONTENT_H

#include "host/library/services.h"

#include <json/value.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace tarn::ctl {

/**
 * Marks the databases that are installed on a volume, which need not be in use any more, as ones whose files may not be
 * whole, so that the next update or fix installs them again even if their version has not changed. Returns those that
 * were not marked before; throws UpdateError when not all can be marked, and none of these is then.
 */
[[nodiscard]] std::vector<std::string> MarkInstalled(const Services& services);

/** Takes marks away again. */
void Unmark(const std::vector<std::string>& ids);

/**
 * Records name files by absolute paths as well: lets these lead to the volume, and keeps everything else. Returns the
 * databases whose records could not be put right, having told why.
 */
[[nodiscard]] std::set<std::string> LetRecordsFollow(const Services& services, const std::string& volume);

/**
 * Has a volume chosen and taken into use while none is, and puts the records right for it. Databases that it lacks, or
 * whose recorded files are not all right there, are marked, and become "incomplete" of the answer; returned is what to
 * say of them. The marks stand before the choice, so that they are there as well if the program is killed after it.
 */
std::string Adopt(const Services& services, const std::function<void()>& choose, Json::Value& answer);

} // namespace tarn::ctl

#endif
