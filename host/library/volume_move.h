/** @file The move of all databases from a volume to another one. */
#ifndef HOST_LIBRARY_VOLUME_MOVE_H
#define HOST_LIBRARY_VOLUME_MOVE_H

#include "host/library/services.h"

#include <string>

namespace tarn::ctl {

/** How a move of the databases to another volume ended. */
struct MoveOutcome {
	enum class End {
		kNoTarget, ///< No other volume was suitable, or nothing had to be done.
		kMoved,
		kCopied,  ///< All of it is on the other volume, which is in use, but not all could be deleted here.
		kStayed,  ///< All of it is here still, and no volume is in use.
		kDivided, ///< Nobody knows; no volume is in use, and the databases are marked.
	};

	End end = End::kNoTarget;
	std::string target; ///< Where to; empty when no other volume was suitable.
};

/**
 * Handles the end of a volume as the library does, and puts the records right. The databases are marked as unfinished
 * while they move, so that they are installed again as a whole if the move is killed: parts of them may then be on
 * either volume. Throws what the library throws, and CommandError when nothing could be begun for another reason than
 * that no other volume is suitable.
 */
[[nodiscard]] MoveOutcome MoveAway(const Services& services, const std::string& volume);

} // namespace tarn::ctl

#endif
