#include "base/text.h"
#include "publisher/commands/commands.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace tarn::publisher {

namespace {

constexpr const char* kEmptyLine = "\r\x1b[K";

class ProgressLine {
public:
	explicit ProgressLine(const Streams& streams) : streams_(streams) {}
	ProgressLine(const ProgressLine&) = delete;
	ProgressLine& operator=(const ProgressLine&) = delete;
	~ProgressLine() {
		try {
			Clear();
		} catch (...) { // failing to write to a terminal is no failure of the command
		}
	}

	/** The object must outlive the result. */
	PublishObserver Observer() {
		PublishObserver observer;
		observer.warn = [this](const std::string& sentence) {
			Clear();
			streams_.err << "warning: " << sentence << "\n";
		};
		observer.waiting = [this] {
			streams_.err << "Waiting for another publisher of this repository.\n" << std::flush;
		};
		if (streams_.terminal) {
			observer.progress = [this](std::uint64_t files, std::uint64_t bytes, const Tree& tree) {
				Show(files, bytes, tree);
			};
			observer.step = [this](const std::string& what, std::uint64_t done, std::uint64_t all) {
				Print(all == 1 ? what : what + " " + std::to_string(done) + " of " + std::to_string(all));
			};
		}
		return observer;
	}

private:
	using Clock = std::chrono::steady_clock;

	/** Shows how much of a tree is packed. */
	void Show(std::uint64_t files, std::uint64_t bytes, const Tree& tree) {
		constexpr std::chrono::milliseconds kInterval{200};
		const Clock::time_point now = Clock::now();
		if (shown_ && now - last_ < kInterval) {
			return;
		}
		const double seconds = std::chrono::duration<double>(now - started_).count();
		const double rate = seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
		Print("packing " + std::to_string(files) + " of " + std::to_string(tree.files.size()) + " files, " +
		      HumanSize(bytes) + " of " + HumanSize(tree.total_size) + ", " +
		      HumanSize(static_cast<std::uint64_t>(rate)) + "/s");
	}

	void Print(const std::string& text) {
		streams_.err << kEmptyLine << text << std::flush;
		shown_ = true;
		last_ = Clock::now();
	}

	/** Makes room for another line. */
	void Clear() {
		if (shown_) {
			streams_.err << kEmptyLine << std::flush;
			shown_ = false;
		}
	}

	const Streams& streams_;
	bool shown_ = false;
	Clock::time_point started_ = Clock::now();
	Clock::time_point last_;
};

} // namespace

void WithProgress(const Streams& streams, const std::function<void(const PublishObserver& observer)>& operation) {
	ProgressLine line(streams);
	operation(line.Observer());
}

} // namespace tarn::publisher
