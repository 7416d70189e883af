#include "publisher/commands/progress_line.h"

#include "base/text.h"

namespace tarn::publisher {

namespace {

constexpr const char* kEmptyLine = "\r\x1b[K";

} // namespace

ProgressLine::~ProgressLine() {
	try {
		Clear();
	} catch (...) { // failing to write to a terminal is no failure of the command
	}
}

void ProgressLine::Show(std::uint64_t files, std::uint64_t bytes, const Tree& tree) {
	constexpr std::chrono::milliseconds kInterval{200};
	const Clock::time_point now = Clock::now();
	if (!enabled_ || (shown_ && now - last_ < kInterval)) {
		return;
	}
	const double seconds = std::chrono::duration<double>(now - started_).count();
	const double rate = seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
	Print("packing " + std::to_string(files) + " of " + std::to_string(tree.files.size()) + " files, " +
	      HumanSize(bytes) + " of " + HumanSize(tree.total_size) + ", " + HumanSize(static_cast<std::uint64_t>(rate)) +
	      "/s");
}

void ProgressLine::ShowStep(const std::string& what, std::uint64_t done, std::uint64_t all) {
	if (enabled_) {
		Print(all == 1 ? what : what + " " + std::to_string(done) + " of " + std::to_string(all));
	}
}

void ProgressLine::Clear() {
	if (shown_) {
		out_ << kEmptyLine << std::flush;
		shown_ = false;
	}
}

void ProgressLine::Print(const std::string& text) {
	out_ << kEmptyLine << text << std::flush;
	shown_ = true;
	last_ = Clock::now();
}

PublishObserver ObserverOf(ProgressLine& line, const Streams& streams) {
	PublishObserver observer;
	observer.warn = [&](const std::string& sentence) {
		line.Clear();
		streams.err << "warning: " << sentence << "\n";
	};
	observer.waiting = [&] { streams.err << "Waiting for another publisher of this repository.\n" << std::flush; };
	observer.progress = [&](std::uint64_t files, std::uint64_t bytes, const Tree& tree) {
		line.Show(files, bytes, tree);
	};
	observer.step = [&](const std::string& what, std::uint64_t done, std::uint64_t all) {
		line.ShowStep(what, done, all);
	};
	return observer;
}

} // namespace tarn::publisher
