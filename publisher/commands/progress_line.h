/** @file What the commands print to, and the line of progress on a terminal. */
#ifndef PUBLISHER_COMMANDS_PROGRESS_LINE_H
#define PUBLISHER_COMMANDS_PROGRESS_LINE_H

#include "publisher/packages/observer.h"
#include "publisher/packages/tree.h"

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace tarn::publisher {

/** Where a command's results and complaints go. */
struct Streams {
	std::ostream& out;
	std::ostream& err;
	bool terminal; // whether err is a terminal
};

/** One line on a terminal, rewritten a few times a second, and removed with the object. */
class ProgressLine {
public:
	ProgressLine(std::ostream& out, bool enabled) : out_(out), enabled_(enabled) {}
	ProgressLine(const ProgressLine&) = delete;
	ProgressLine& operator=(const ProgressLine&) = delete;
	~ProgressLine();

	/** Shows how much of a tree is packed. */
	void Show(std::uint64_t files, std::uint64_t bytes, const Tree& tree);
	/** Shows how many parts of a step are done; without a number when the step has one part. */
	void ShowStep(const std::string& what, std::uint64_t done, std::uint64_t all);
	/** Makes room for another line. */
	void Clear();

private:
	using Clock = std::chrono::steady_clock;

	void Print(const std::string& text);

	std::ostream& out_;
	bool enabled_;
	bool shown_ = false;
	Clock::time_point started_ = Clock::now();
	Clock::time_point last_;
};

/** Sends warnings to the stream of complaints and progress to the line; both must outlive the result. */
PublishObserver ObserverOf(ProgressLine& line, const Streams& streams);

} // namespace tarn::publisher

#endif
