/** @file What the message "Disk space is too low" does not say. */
#ifndef DATAUPDATE_SPACE_SHORTAGE_H
#define DATAUPDATE_SPACE_SHORTAGE_H

#include "dataupdate/export.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::dataupdate {

/** A file system of which too little would stay free. */
struct SpaceShortage {
	std::string path;            ///< Of what is on it.
	std::uint64_t available = 0; ///< Bytes that were free for other users than root.
	std::uint64_t capacity = 0;  ///< Bytes.
	std::uint64_t lacking = 0;   ///< How many bytes more would have had to be free.
};

/**
 * The shortage that this thread met last; no value before the first. Of use after UpdateError "Disk space is too low".
 */
TARNDBUD_EXPORT std::optional<SpaceShortage> LastSpaceShortage();

/** Keeps what LastSpaceShortage() returns in this thread from now on. */
TARNDBUD_EXPORT void NoteSpaceShortage(SpaceShortage shortage);

} // namespace tarn::dataupdate

#endif
