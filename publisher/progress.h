#ifndef PUBLISHER_PROGRESS_H
#define PUBLISHER_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace tarn::publisher {

/** One line on a terminal, rewritten a few times a second; it is gone when the object is. */
class ProgressLine {
public:
	ProgressLine(std::ostream& out, bool enabled) : out_(out), enabled_(enabled) {}
	ProgressLine(const ProgressLine&) = delete;
	ProgressLine& operator=(const ProgressLine&) = delete;
	~ProgressLine();

	void Show(std::uint64_t files, std::uint64_t bytes, std::uint64_t all_files, std::uint64_t all_bytes);
	/** Another kind of work, by how many of its parts are done; without a number when it has one part. */
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

} // namespace tarn::publisher

#endif
