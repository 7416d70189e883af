#include "host/library/run_record.h"

#include "base/file_io.h"
#include "base/text.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "dataupdate/progress.h"
#include "host/library/json_record.h"
#include "host/library/last_document.h"
#include "host/terminal/progress_file.h"

#include <json/value.h>

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iterator>
#include <utility>

namespace tarn::ctl {

namespace {

constexpr char kFailureName[] = "last_failure.json";
constexpr std::size_t kLongestSentence = 1000;

using Clock = std::chrono::steady_clock;

/** All but kOther. */
constexpr std::pair<Category, const char*> kNames[] = {
    {Category::kInterrupted, "interrupted"},
    {Category::kLocked, "locked"},
    {Category::kLockUnusable, "lock_unusable"},
    {Category::kUnknownDatabase, "unknown_database"},
    {Category::kDownload, "download"},
    {Category::kLowSpace, "low_space"},
    {Category::kNoSuitableVolume, "no_suitable_volume"},
    {Category::kVolumesUnknown, "volumes_unknown"},
    {Category::kWrongConfiguration, "wrong_configuration"},
    {Category::kPackageRefused, "package_refused"},
    {Category::kPackageUnusable, "package_unusable"},
    {Category::kRefusedByCheck, "refused_by_check"},
    {Category::kNoVerdict, "no_verdict"},
    {Category::kFilesMayBeAMixture, "files_may_be_a_mixture"},
    {Category::kUndecodable, "undecodable"},
    {Category::kInvalidRecord, "invalid_record"},
    {Category::kNotWritable, "not_writable"},
    {Category::kDefaultsMissing, "defaults_missing"},
};

const char* NameOf(Category category) {
	const auto* name = std::find_if(
	    std::begin(kNames), std::end(kNames), [&](const auto& candidate) { return candidate.first == category; });
	return name == std::end(kNames) ? "other" : name->second;
}

/** The word for a category; of an exit code that has one meaning, the word for that. */
std::string FailureName(ExitCode code, Category category) {
	switch (code) {
	case kDone:
		return "";
	case kUnsupported:
		return NameOf(Category::kUnknownDatabase);
	case kAboveOffered:
		return "above_offered";
	case kRefusedHere:
		return NameOf(Category::kRefusedByCheck);
	case kBeyondBudget:
		return "beyond_budget";
	case kHeld:
		return "held";
	case kLocked:
		return NameOf(Category::kLocked);
	default:
		return NameOf(category);
	}
}

/** What is known when an operation begins. */
struct Beginning {
	Clock::time_point time = Clock::now();
	std::uint64_t downloaded_bytes = dataupdate::DownloadedBytes();
};

void WriteResult(const std::filesystem::path& path, const Json::Value& object) {
	try {
		RemoveLeftDrafts(path.parent_path());
		WriteJsonRecord(path, object);
	} catch (const std::exception& error) {
		syslog(LOG_WARNING, "The result could not be recorded: %s", error.what());
	}
}

/**
 * A fetch that fails leaves no document; what the last document offered is then kept from the record before. An import
 * drops the document on purpose: what a server offered is of no interest to a device that takes kits.
 */
void AddOffer(
    const Services& services, const std::string& id, const std::optional<RunRecord>& before, Json::Value& object) {
	// An operation's end does not wait for another process that fetches the document.
	if (const std::optional<LastDocument> document = ReadLastDocument(*services.io, 0)) {
		object["document_time"] = Json::Int64{document->time};
		if (const std::optional<int> version = OfferedVersion(*document, id)) {
			object["offered_version"] = *version;
		}
		return;
	}
	if (!before || object["operation"] == "import") {
		return;
	}
	if (before->document_time) {
		object["document_time"] = Json::Int64{*before->document_time};
	}
	if (before->offered_version) {
		object["offered_version"] = *before->offered_version;
	}
}

void Write(const Services& services, const std::string& id, const char* operation, const Beginning& beginning,
    ExitCode code, Category category = Category::kOther) {
	const std::optional<RunRecord> before = ReadRunRecord(id);
	const std::uint64_t downloaded = dataupdate::DownloadedBytes() - beginning.downloaded_bytes;
	Json::Value object(Json::objectValue);
	object["operation"] = operation;
	object["time"] = Json::Int64{std::time(nullptr)};
	object["exit_status"] = code;
	object["failure"] = FailureName(code, category);
	if (before && before->last_success) {
		object["last_success"] = Json::Int64{*before->last_success}; // Read where this one is no success.
	}
	object["seconds"] = std::chrono::duration<double>(Clock::now() - beginning.time).count();
	object["downloaded_bytes"] = Json::UInt64{downloaded};
	object["downloaded_total"] = Json::UInt64{downloaded + (before ? before->downloaded_total : 0)};
	AddOffer(services, id, before, object);
	WriteResult(RunRecordPath(id), object);
}

} // namespace

std::string RunRecordPath(const std::string& id) {
	return dataupdate::StatePath(id, "last_run.json");
}

ExitCode RunRecorded(
    const Services& services, const std::string& id, const char* operation, const std::function<ExitCode()>& work) {
	const Beginning beginning;
	const ProgressSubject subject(id);
	ExitCode code = kDone;
	try {
		code = work();
	} catch (...) {
		if (!dataupdate::IsInterruptionRequested() || !IsEarlyEnd()) {
			const Failure failure = ExplainException(*services.io, id);
			Write(services, id, operation, beginning, failure.code, failure.category);
			RecordFailure(id, operation, failure);
		}
		throw;
	}
	Write(services, id, operation, beginning, code);
	return code;
}

void RecordFailure(const std::string& id, const char* operation, const Failure& failure) {
	Json::Value object(Json::objectValue);
	object["operation"] = operation;
	object["time"] = Json::Int64{std::time(nullptr)};
	object["exit_status"] = failure.code;
	object["error"] = PlainAscii(failure.sentence, kLongestSentence);
	WriteResult(dataupdate::StatePath(id, kFailureName), object);
}

std::optional<FailureRecord> ReadFailureRecord(const std::string& id) {
	return ReadJsonRecord(dataupdate::StatePath(id, kFailureName), [](const Json::Value& object) {
		return FailureRecord{object["operation"].asString(), object["time"].asInt64(), object["exit_status"].asInt(),
		    PlainAscii(object["error"].asString(), kLongestSentence), false};
	});
}

std::optional<RunRecord> ReadRunRecord(const std::string& id) {
	return ReadJsonRecord(RunRecordPath(id), [](const Json::Value& object) {
		RunRecord record;
		record.operation = object["operation"].asString();
		record.time = object["time"].asInt64();
		record.exit_status = object["exit_status"].asInt();
		record.seconds = object["seconds"].asDouble();
		record.downloaded_bytes = object["downloaded_bytes"].asUInt64();
		record.downloaded_total = object["downloaded_total"].asUInt64();
		record.failure = object["failure"].asString();
		if (record.exit_status == kDone) {
			record.last_success = record.time;
		} else if (object.isMember("last_success")) {
			record.last_success = object["last_success"].asInt64();
		}
		if (object.isMember("document_time")) {
			record.document_time = object["document_time"].asInt64();
		}
		if (object.isMember("offered_version")) {
			record.offered_version = object["offered_version"].asInt();
		}
		return record;
	});
}

} // namespace tarn::ctl
