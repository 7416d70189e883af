#include "host/terminal/terminal.h"

#include "base/text.h"

#include <sys/stat.h>

#include <cstdio>
#include <exception>
#include <fstream>

namespace tarn::ctl {

using dataupdate::Phase;

namespace {

constexpr char kClearLine[] = "\r\x1b[K";
// Enough for any link and path of a sane server, little enough that a hostile one doesn't flood the log.
constexpr std::size_t kLongestSentence = 2000;

constexpr std::chrono::milliseconds kPeriod(200);
constexpr std::chrono::milliseconds kLongestPause(500);
// A rate over less than this would be noise.
constexpr double kLeastSeconds = 0.3;
// The line's own bytes are among what the process writes.
constexpr std::uint64_t kLeastBytes = 1000;

const char* PhaseName(Phase phase) {
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
	default:
		return "";
	}
}

/** Files that are hashed or patched one after the other are one phase together. */
bool HasActivityPerFile(Phase phase) {
	return phase == Phase::kHash || phase == Phase::kPatch;
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
	sample.file_bytes = sample.activity.phase == Phase::kDownload ? FileSize(sample.activity.path) : 0;
	ReadCounters(sample);
	return sample;
}

} // namespace

Terminal::Terminal(std::ostream& out, std::ostream& err, bool draws) : out_(out), err_(err), draws_(draws) {}

void Terminal::Say(const std::string& text) {
	const MutexLock guard(mutex_);
	ClearLine();
	out_ << text << std::flush;
}

void Terminal::Complain(const std::string& sentence) {
	const MutexLock guard(mutex_);
	ClearLine();
	err_ << "tarndbudctl: " << PlainAscii(sentence, kLongestSentence) << '\n' << std::flush;
}

void Terminal::Draw(const std::string& line) {
	const MutexLock guard(mutex_);
	if (!draws_) {
		return;
	}
	if (line.empty()) {
		ClearLine();
		return;
	}
	err_ << kClearLine << line << std::flush;
	drawn_ = true;
}

bool Terminal::Good() {
	const MutexLock guard(mutex_);
	return out_.good();
}

void Terminal::ClearLine() {
	if (drawn_) {
		err_ << kClearLine << std::flush;
		drawn_ = false;
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
	const bool same = sample.activity.phase == begin_.activity.phase &&
	                  (HasActivityPerFile(begin_.activity.phase) || sample.activity.serial == begin_.activity.serial);
	if (!same) {
		begin_ = sample;
		begin_bytes_ = Bytes(sample);
	}
	const std::uint64_t bytes = Bytes(sample);
	line_ = PhaseName(sample.activity.phase);
	if (bytes < kLeastBytes) {
		return line_;
	}
	line_ += "  " + HumanSize(bytes);
	const std::chrono::duration<double> elapsed = sample.time - begin_.time;
	if (elapsed.count() >= kLeastSeconds) {
		const auto done = static_cast<double>(Growth(begin_bytes_, bytes));
		line_ += "  " + HumanSize(static_cast<std::uint64_t>(done / elapsed.count())) + "/s";
	}
	return line_;
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

ProgressLine::ProgressLine(Terminal& terminal) : terminal_(terminal), thread_([this] { Run(); }) {}

ProgressLine::~ProgressLine() {
	{
		const MutexLock guard(mutex_);
		ended_ = true;
	}
	wake_.notify_one();
	thread_.join();
}

void ProgressLine::Run() {
	try {
		ProgressMeter meter;
		const MutexLock lock(mutex_);
		while (!ended_) {
			wake_.wait_for(mutex_, kPeriod);
			if (!ended_) {
				terminal_.Draw(meter.Line(TakeSample()));
			}
		}
		terminal_.Draw("");
	} catch (const std::exception&) {
		// A line that cannot be drawn must not end the update.
	}
}

} // namespace tarn::ctl
