/** @file What lies on a volume: its content, its adoption, and its move to another volume. */
#ifndef HOST_LIBRARY_VOLUME_CONTENT_H
#define HOST_LIBRARY_VOLUME_CONTENT_H

#include "host/library/services.h"

#include <json/value.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tarn::ctl {

/**
 * Has a volume chosen and taken into use while none is, and puts the records right for it. Databases that it lacks, or
 * whose recorded files are not all right there, are marked, and become "incomplete" of the answer; returned is what to
 * say of them. The marks stand before the choice, so that they are there as well if the program is killed after it.
 */
std::string Adopt(const Services& services, const std::function<void()>& choose, Json::Value& answer);

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
