/** @file What the library is doing, as a line that is redrawn on the terminal. */
#ifndef HOST_TERMINAL_PROGRESS_LINE_H
#define HOST_TERMINAL_PROGRESS_LINE_H

#include "base/mutex.h"
#include "dataupdate/progress.h"
#include "host/terminal/terminal.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <string>
#include <thread>

namespace tarn::ctl {

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
