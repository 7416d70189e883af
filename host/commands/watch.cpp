#include "host/commands/watch.h"

#include "dataupdate/interruption.h"
#include "host/terminal/progress_file.h"

#include <boost/algorithm/cxx11/any_of.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>

namespace tarn::ctl {

namespace {

constexpr useconds_t kPeriodMicroseconds = 250000;
constexpr std::chrono::seconds kLongestSilence(10);
/** Between two databases of one run no lock is held for a moment. */
constexpr int kQuietLooks = 4;

bool IsRunning(const Services& services, const Options& options) {
	if (options.ids.empty()) {
		return services.checker->IsAnyUpdating();
	}
	return std::any_of(options.ids.begin(), options.ids.end(),
	    [&](const std::string& id) { return services.checker->IsUpdating(id); });
}

class Watcher {
public:
	Watcher(const Services& services, const Options& options) : services_(services), options_(options) {}
	~Watcher() { services_.terminal.Draw(""); }
	Watcher(const Watcher&) = delete;
	Watcher& operator=(const Watcher&) = delete;

	void Look() {
		const std::optional<ProgressRecord> record = ReadProgress();
		if (!record || !(options_.ids.empty() || boost::algorithm::any_of_equal(options_.ids, record->id))) {
			return;
		}
		if (services_.terminal.Draws() && !options_.json) {
			services_.terminal.Draw(record->id + ": " + record->line);
		} else {
			Print(*record);
		}
	}

private:
	using Clock = std::chrono::steady_clock;

	void Print(const ProgressRecord& record) {
		const std::string step = record.id + record.phase + std::to_string(record.package);
		if (step == step_ && (record.line == line_ || Clock::now() - printed_ < kLongestSilence)) {
			return;
		}
		services_.terminal.Say(options_.json ? FormatProgress(record) : record.id + ": " + record.line + "\n");
		step_ = step;
		line_ = record.line;
		printed_ = Clock::now();
	}

	const Services& services_;
	const Options& options_;
	std::string step_;
	std::string line_;
	Clock::time_point printed_;
};

} // namespace

ExitCode WatchUpdate(const Services& services, const Options& options) {
	Watcher watcher(services, options);
	// Where nothing runs, nobody waits to see whether anything begins.
	int quiet = IsRunning(services, options) ? 0 : kQuietLooks;
	while (quiet < kQuietLooks) {
		if (dataupdate::IsInterruptionRequested()) {
			return kInterrupted;
		}
		watcher.Look();
		usleep(kPeriodMicroseconds);
		quiet = IsRunning(services, options) ? 0 : quiet + 1;
	}
	return kDone;
}

} // namespace tarn::ctl
