/** @file The move of all databases from a volume to another one, and what mv complains of meanwhile. */
#ifndef HOST_LIBRARY_VOLUME_MOVE_H
#define HOST_LIBRARY_VOLUME_MOVE_H

#include "base/unique_fd.h"
#include "host/library/services.h"

#include <cstddef>
#include <string>
#include <thread>

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

/**
 * Takes this process's error stream, which mv inherits, and passes on the first lines of mv's, which are thousands when
 * a disk is full, and every line of others. To be made by the main thread, one at a time; without a pipe the stream
 * stays what it is.
 */
class MoveOutput {
public:
	static constexpr std::size_t kShownLines = 5;

	MoveOutput();
	~MoveOutput();

	/** Gives the stream back, and returns how many lines of mv were not passed on. */
	std::size_t End();

private:
	void PassOn();
	void PassOn(const std::string& line);

	UniqueFd stream_;
	UniqueFd read_end_;
	std::size_t lines_ = 0;
	std::thread thread_;
};

} // namespace tarn::ctl

#endif
