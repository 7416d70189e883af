#include "host/terminal/progress.h"

#include "base/text.h"
#include "host/terminal/progress_file.h"

#include <tarncodesign/tarncodesign.h>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <fstream>
#include <utility>

// An appliance's own platform may lack what only serves people.
#pragma weak tarnarchive_announced_size

namespace tarn::ctl {

using dataupdate::Phase;

namespace {

constexpr std::uint64_t kPercent = 100;
constexpr std::chrono::milliseconds kPeriod(200);
constexpr std::chrono::milliseconds kLongestPause(500);
// A rate over less than this would be noise.
constexpr double kLeastSeconds = 0.3;
// The line's own bytes are among what the process writes.
constexpr std::uint64_t kLeastBytes = 1000;

Mutex plan_mutex;
std::vector<PlannedDownload> plan TARN_GUARDED_BY(plan_mutex);

DownloadPlace PlannedPlace(const std::string& path) {
	const MutexLock guard(plan_mutex);
	const auto found =
	    std::find_if(plan.begin(), plan.end(), [&](const PlannedDownload& download) { return download.path == path; });
	if (found == plan.end()) {
		return {};
	}
	return {static_cast<std::size_t>(found - plan.begin()) + 1, plan.size(), found->bytes};
}

std::uint64_t FileSize(const std::string& path) {
	struct stat status {};
	return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

/** The process's own counters; they stay 0 where the kernel doesn't keep them. */
void ReadCounters(Sample& sample) {
	std::ifstream counters("/proc/self/io");
	std::string name;
	std::uint64_t value = 0;
	while (counters >> name >> value) {
		if (name == "rchar:") {
			sample.read_bytes = value;
		} else if (name == "wchar:") {
			sample.written_bytes = value;
		}
	}
}

std::uint64_t Growth(std::uint64_t before, std::uint64_t now) {
	return now > before ? now - before : 0;
}

Sample TakeSample() {
	Sample sample;
	sample.activity = dataupdate::CurrentActivity();
	sample.time = std::chrono::steady_clock::now();
	if (sample.activity.phase == Phase::kDownload) {
		sample.file_bytes = FileSize(sample.activity.path);
		sample.download = PlaceOfDownload(sample.activity.path);
	}
	ReadCounters(sample);
	return sample;
}

/** "  package 2 of 5"; nothing for one package, and for what is no package. */
std::string PackageName(const Sample& sample) {
	const DownloadPlace& place = sample.download;
	if (place.number == 0 || place.count < 2) {
		return "";
	}
	return " package " + std::to_string(place.number) + " of " + std::to_string(place.count);
}

std::string FormatLeft(double seconds) {
	constexpr double kLongest = 100.0 * 3600;
	constexpr std::uint64_t kMinute = 60;
	if (seconds > kLongest) {
		return "more than 100 h left";
	}
	const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
	if (whole < kMinute) {
		return std::to_string(whole) + " s left";
	}
	const std::uint64_t minutes = whole / kMinute;
	return minutes < kMinute
	           ? std::to_string(minutes) + " min " + std::to_string(whole % kMinute) + " s left"
	           : std::to_string(minutes / kMinute) + " h " + std::to_string(minutes % kMinute) + " min left";
}

} // namespace

void PlanDownloads(std::vector<PlannedDownload> downloads) {
	const MutexLock guard(plan_mutex);
	plan = std::move(downloads);
}

DownloadPlace PlaceOfDownload(const std::string& path) {
	DownloadPlace place = PlannedPlace(path);
	unsigned long long bytes = 0;
	if (place.bytes == 0 && tarnarchive_announced_size != nullptr && tarnarchive_announced_size(path.c_str(), &bytes)) {
		place.bytes = bytes;
	}
	return place;
}

std::string PhaseName(Phase phase) {
	switch (phase) {
	case Phase::kDownload:
		return "Downloading";
	case Phase::kUnpack:
		return "Unpacking";
	case Phase::kPatch:
		return "Patching";
	case Phase::kApply:
		return "Replacing files";
	case Phase::kHash:
		return "Computing digests";
	case Phase::kCheck:
		return "Having it checked";
	default:
		return "";
	}
}

std::string ProgressMeter::Line(const Sample& sample) {
	if (sample.activity.phase == Phase::kIdle) {
		if (sample.time - last_busy_ > kLongestPause) {
			*this = ProgressMeter();
		}
		return line_;
	}
	last_busy_ = sample.time;
	// Files that are hashed or patched one after the other are one phase together.
	const Phase phase = begin_.activity.phase;
	const bool is_together = phase == Phase::kHash || phase == Phase::kPatch;
	if (sample.activity.phase != phase || (!is_together && sample.activity.serial != begin_.activity.serial)) {
		begin_ = sample;
		begin_bytes_ = Bytes(sample);
	}
	const std::uint64_t bytes = Bytes(sample);
	line_ = PhaseName(sample.activity.phase) + PackageName(sample) + Amount(sample, bytes);
	return line_;
}

std::string ProgressMeter::Amount(const Sample& sample, std::uint64_t bytes) const {
	if (bytes < kLeastBytes) {
		return "";
	}
	const std::uint64_t whole = sample.activity.phase == Phase::kDownload ? sample.download.bytes : 0;
	std::string amount = "  " + HumanSize(bytes);
	if (whole >= bytes) {
		amount += " of " + HumanSize(whole) + "  " + std::to_string(bytes * kPercent / whole) + " %";
	}
	const std::chrono::duration<double> elapsed = sample.time - begin_.time;
	if (elapsed.count() < kLeastSeconds) {
		return amount;
	}
	const double rate = static_cast<double>(Growth(begin_bytes_, bytes)) / elapsed.count();
	amount += "  " + HumanSize(static_cast<std::uint64_t>(rate)) + "/s";
	if (whole >= bytes && rate >= 1) {
		amount += "  " + FormatLeft(static_cast<double>(whole - bytes) / rate);
	}
	return amount;
}

std::uint64_t ProgressMeter::Bytes(const Sample& sample) const {
	switch (sample.activity.phase) {
	case Phase::kDownload:
		return sample.file_bytes;
	case Phase::kUnpack:
		return Growth(begin_.written_bytes, sample.written_bytes);
	case Phase::kHash:
		// Files come and go between two samples, so their own counts cannot be added up.
		return Growth(begin_.read_bytes, sample.read_bytes);
	default:
		return sample.activity.bytes;
	}
}

ProgressLine::ProgressLine(Terminal& terminal, bool draws)
    : terminal_(terminal), draws_(draws), thread_([this] { Run(); }) {}

ProgressLine::~ProgressLine() {
	{
		const MutexLock guard(mutex_);
		ended_ = true;
	}
	wake_.notify_one();
	thread_.join();
}

void ProgressLine::Show(ProgressMeter& meter, ProgressPublisher& publisher) {
	if (!draws_ && ProgressSubject::Current().empty()) {
		return; // Nobody is told.
	}
	const Sample sample = TakeSample();
	const std::string line = meter.Line(sample);
	if (draws_) {
		terminal_.Draw(line);
	}
	publisher.Publish(sample, line);
}

void ProgressLine::Run() {
	try {
		ProgressMeter meter;
		ProgressPublisher publisher;
		const MutexLock lock(mutex_);
		while (!ended_) {
			wake_.wait_for(mutex_, kPeriod);
			if (!ended_) {
				Show(meter, publisher);
			}
		}
		terminal_.Draw("");
	} catch (const std::exception&) {
		// A line that cannot be drawn must not end the update.
	}
}

} // namespace tarn::ctl
