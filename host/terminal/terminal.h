/** @file The terminal, and the line of progress on it. */
#ifndef HOST_TERMINAL_TERMINAL_H
#define HOST_TERMINAL_TERMINAL_H

#include "base/mutex.h"
#include "dataupdate/progress.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ostream>
#include <string>
#include <thread>

namespace tarn::ctl {

/**
 * Everything that the program writes goes through here, from any thread, so that a line that is redrawn on the error
 * stream never mixes with other output.
 */
class Terminal {
public:
	/** @param draws  whether the error stream is a terminal, on which a line can be redrawn */
	Terminal(std::ostream& out, std::ostream& err, bool draws);

	/** Results; the text ends its own lines. */
	void Say(const std::string& text);
	/** One sentence about a failure, on a line of its own behind the program's name; made printable. */
	void Complain(const std::string& sentence);

	bool Draws() const { return draws_; }
	/** Replaces the redrawn line, and does nothing where no line can be redrawn; empty clears it. */
	void Draw(const std::string& line);
	/** Whether all output so far reached its destination. */
	bool Good();

private:
	void ClearLine() TARN_REQUIRES(mutex_);

	Mutex mutex_;
	std::ostream& out_ TARN_GUARDED_BY(mutex_);
	std::ostream& err_ TARN_GUARDED_BY(mutex_);
	const bool draws_;
	bool drawn_ TARN_GUARDED_BY(mutex_) = false;
};

/** One look at the running update. */
struct Sample {
	dataupdate::Activity activity;
	std::chrono::steady_clock::time_point time;
	std::uint64_t file_bytes = 0;    ///< Size of the file that is downloaded.
	std::uint64_t written_bytes = 0; ///< What the process has written so far.
	std::uint64_t read_bytes = 0;    ///< What the process has read so far.
};

/** Makes lines of samples: the phase, its bytes and their rate since it began. */
class ProgressMeter {
public:
	/** The line for the newest sample; empty while nothing is done, apart from the moments between two files. */
	std::string Line(const Sample& sample);

private:
	std::uint64_t Bytes(const Sample& sample) const;

	Sample begin_;
	std::uint64_t begin_bytes_ = 0;
	std::chrono::steady_clock::time_point last_busy_;
	std::string line_;
};

/** Redraws the line five times a second from construction to destruction, in a thread of its own. */
class ProgressLine {
public:
	explicit ProgressLine(Terminal& terminal);
	~ProgressLine();
	ProgressLine(const ProgressLine&) = delete;
	ProgressLine& operator=(const ProgressLine&) = delete;

private:
	void Run();

	Terminal& terminal_;
	Mutex mutex_;
	std::condition_variable_any wake_;
	bool ended_ TARN_GUARDED_BY(mutex_) = false;
	std::thread thread_;
};

} // namespace tarn::ctl

#endif
