/** @file The line of progress on a terminal, and what is known beforehand of the packages that are downloaded. */
#ifndef HOST_TERMINAL_PROGRESS_H
#define HOST_TERMINAL_PROGRESS_H

#include "base/mutex.h"
#include "dataupdate/progress.h"
#include "host/terminal/terminal.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace tarn::ctl {

/** A package that is going to be downloaded. */
struct PlannedDownload {
	std::string path;        ///< Where it is written.
	std::uint64_t bytes = 0; ///< As the server announces it; 0: unknown.
};

/** One of the packages, while it is downloaded. */
struct DownloadPlace {
	std::size_t number = 0;  ///< From 1 on; 0 for a file that is not planned.
	std::size_t count = 0;   ///< Of all that are planned.
	std::uint64_t bytes = 0; ///< Of the whole file; 0: unknown.
};

/** Tells the packages of the operation that begins, in their order; may be called from any thread. */
void PlanDownloads(std::vector<PlannedDownload> downloads);

/**
 * What is known of a file that is being downloaded. Where nobody announced its size, the beginning of a package tells
 * it. May be called from any thread.
 */
[[nodiscard]] DownloadPlace PlaceOfDownload(const std::string& path);

/** One look at the running update. */
struct Sample {
	dataupdate::Activity activity;
	std::chrono::steady_clock::time_point time;
	std::uint64_t file_bytes = 0;    ///< Size of the file that is downloaded, as far as it has come.
	DownloadPlace download;          ///< What is known of that file.
	std::uint64_t written_bytes = 0; ///< What the process has written so far.
	std::uint64_t read_bytes = 0;    ///< What the process has read so far.
};

/**
 * Makes lines of samples: the phase, its bytes and their rate since it began; of a download also which package
 * it is, and where the size is known how much of it has come and when it will be whole.
 */
class ProgressMeter {
public:
	/** The line for the newest sample; empty while nothing is done, apart from the moments between two files. */
	std::string Line(const Sample& sample);

private:
	std::uint64_t Bytes(const Sample& sample) const;
	std::string Amount(const Sample& sample, std::uint64_t bytes) const;

	Sample begin_;
	std::uint64_t begin_bytes_ = 0;
	std::chrono::steady_clock::time_point last_busy_;
	std::string line_;
};

class ProgressPublisher;

/** What a phase is called; empty when nothing is done. */
std::string PhaseName(dataupdate::Phase phase);

/**
 * Tells other processes of the progress from construction to destruction, and on a terminal redraws the line, five
 * times a second, in a thread of its own.
 */
class ProgressLine {
public:
	/** @param draws  whether the line is drawn */
	explicit ProgressLine(Terminal& terminal, bool draws = true);
	~ProgressLine();

private:
	void Run();
	void Show(ProgressMeter& meter, ProgressPublisher& publisher);

	Terminal& terminal_;
	const bool draws_;
	Mutex mutex_;
	std::condition_variable_any wake_;
	bool ended_ TARN_GUARDED_BY(mutex_) = false;
	std::thread thread_;
};

} // namespace tarn::ctl

#endif
