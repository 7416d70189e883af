/** @file Why a volume does not get the databases, for people; the library has decided already. */
#ifndef HOST_LIBRARY_UNSUITABLE_VOLUME_H
#define HOST_LIBRARY_UNSUITABLE_VOLUME_H

#include "host/library/services.h"

#include <string>

namespace tarn::ctl {

/** Why a safe volume is not suitable, as a sentence without its end. */
[[nodiscard]] std::string WhyUnsuitable(const Services& services, const std::string& volume);

/**
 * Each safe volume and why it is not suitable, or why there is none; a sentence without its end.
 *
 * @param exclude  a volume that does not matter
 */
[[nodiscard]] std::string WhyNoOther(const Services& services, const std::string& exclude);

/** Why a path is no volume, as a sentence without its end. */
[[nodiscard]] std::string WhyNoVolume(const std::string& path);

} // namespace tarn::ctl

#endif
