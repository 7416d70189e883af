/** @file What mv complains of while the databases move. */
#ifndef HOST_LIBRARY_MOVE_OUTPUT_H
#define HOST_LIBRARY_MOVE_OUTPUT_H

#include "base/unique_fd.h"

#include <cstddef>
#include <string>
#include <thread>

namespace tarn::ctl {

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
	MoveOutput(const MoveOutput&) = delete;
	MoveOutput& operator=(const MoveOutput&) = delete;

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
