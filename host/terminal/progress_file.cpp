#include "host/terminal/progress_file.h"

#include "base/mutex.h"
#include "base/text.h"
#include "host/terminal/text.h"

#include <json/reader.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace tarn::ctl {

using dataupdate::Phase;

namespace {

constexpr std::size_t kLongestLine = 200;
constexpr std::size_t kRecordBytes = 1024;
constexpr mode_t kMode = 0644;

Mutex subject_mutex;
std::string subject TARN_GUARDED_BY(subject_mutex);

ProgressRecord Describe(const std::string& id, const Sample& sample, const std::string& line) {
	ProgressRecord record;
	record.id = id;
	record.line = line;
	record.phase = PhaseName(sample.activity.phase);
	record.process = getpid();
	if (sample.activity.phase == Phase::kDownload) {
		record.package = sample.download.number;
		record.packages = sample.download.count;
		record.bytes = sample.file_bytes;
		record.whole_bytes = sample.download.bytes;
	}
	return record;
}

/** Of one length, so that each record takes the place of the one before in one write. */
std::string Padded(std::string text) {
	text.back() = ' ';
	text.resize(std::max(text.size(), kRecordBytes) - 1, ' ');
	return text + '\n';
}

/** Throws JsonCpp's exceptions. */
ProgressRecord Parse(const Json::Value& object) {
	ProgressRecord record;
	record.id = PlainAscii(object["id"].asString(), kLongestLine);
	record.line = PlainAscii(object["line"].asString(), kLongestLine);
	record.phase = PlainAscii(object["phase"].asString(), kLongestLine);
	record.package = object["package"].asUInt();
	record.packages = object["packages"].asUInt();
	record.bytes = object["bytes"].asUInt64();
	record.whole_bytes = object["whole_bytes"].asUInt64();
	record.process = object["process"].asInt64();
	return record;
}

} // namespace

ProgressSubject::ProgressSubject(const std::string& id) {
	const MutexLock guard(subject_mutex);
	subject = id;
}

ProgressSubject::~ProgressSubject() {
	const MutexLock guard(subject_mutex);
	subject.clear();
}

std::string ProgressSubject::Current() {
	const MutexLock guard(subject_mutex);
	return subject;
}

ProgressPublisher::~ProgressPublisher() {
	const std::optional<ProgressRecord> record = ReadProgress();
	if (!record || record->process == getpid()) { // Else the next operation has written it already.
		unlink(kProgressFile);                    // What cannot be removed names a process that does not live.
	}
}

void ProgressPublisher::Publish(const Sample& sample, const std::string& line) {
	const std::string id = ProgressSubject::Current();
	if (id.empty() || sample.activity.phase == Phase::kIdle) {
		return;
	}
	const std::string text = Padded(FormatProgress(Describe(id, sample, line)));
	if (text == written_) {
		return;
	}
	if (!file_) {
		file_ = UniqueFd(open(kProgressFile, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kMode));
	}
	// A record for spectators must not end the update, so what cannot be written is not.
	if (file_ && pwrite(file_.Get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size())) {
		written_ = text;
	}
}

std::string FormatProgress(const ProgressRecord& record) {
	Json::Value object(Json::objectValue);
	object["id"] = record.id;
	object["line"] = record.line;
	object["phase"] = record.phase;
	object["package"] = Json::UInt64{record.package};
	object["packages"] = Json::UInt64{record.packages};
	object["bytes"] = Json::UInt64{record.bytes};
	object["whole_bytes"] = Json::UInt64{record.whole_bytes};
	object["process"] = Json::Int64{record.process};
	return FormatJsonLine(object);
}

std::optional<ProgressRecord> ReadProgress() {
	std::ifstream file(kProgressFile);
	Json::Value object;
	const Json::CharReaderBuilder builder;
	try {
		if (!file || !Json::parseFromStream(builder, file, &object, nullptr) || !object.isObject()) {
			return std::nullopt;
		}
		ProgressRecord record = Parse(object);
		const auto process = static_cast<pid_t>(record.process);
		const bool lives = process > 0 && process == record.process && kill(process, 0) == 0;
		return lives ? std::optional(std::move(record)) : std::nullopt;
	} catch (const Json::Exception&) { // Of other types, or nested too deeply.
		return std::nullopt;
	}
}

} // namespace tarn::ctl
