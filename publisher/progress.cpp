#include "publisher/progress.h"

#include "base/text.h"

namespace tarn::publisher {

ProgressLine::~ProgressLine() {
	try {
		Clear();
	} catch (...) { // a terminal that cannot be written to is no reason to fail
	}
}

void ProgressLine::Show(std::uint64_t files, std::uint64_t bytes, std::uint64_t all_files, std::uint64_t all_bytes) {
	constexpr std::chrono::milliseconds kInterval{200};
	const Clock::time_point now = Clock::now();
	if (!enabled_ || (shown_ && now - last_ < kInterval)) {
		return;
	}
	const double seconds = std::chrono::duration<double>(now - started_).count();
	const double rate = seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
	Print("packing " + std::to_string(files) + " of " + std::to_string(all_files) + " files, " + HumanSize(bytes) +
	      " of " + HumanSize(all_bytes) + ", " + HumanSize(static_cast<std::uint64_t>(rate)) + "/s");
}

void ProgressLine::ShowStep(const std::string& what, std::uint64_t done, std::uint64_t all) {
	if (enabled_) {
		Print(all == 1 ? what : what + " " + std::to_string(done) + " of " + std::to_string(all));
	}
}

void ProgressLine::Print(const std::string& text) {
	out_ << "\r\x1b[K" << text << std::flush;
	shown_ = true;
	last_ = Clock::now();
}

void ProgressLine::Clear() {
	if (shown_) {
		out_ << "\r\x1b[K" << std::flush;
		shown_ = false;
	}
}

} // namespace tarn::publisher
