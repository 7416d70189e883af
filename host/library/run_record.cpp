#include "host/library/run_record.h"

#include "base/whole_file.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "dataupdate/progress.h"
#include "host/library/failure.h"

#include <json/reader.h>
#include <json/value.h>

#include <syslog.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace tarn::ctl {

namespace {

using Clock = std::chrono::steady_clock;

/** What is known when an operation begins. */
struct Beginning {
	Clock::time_point time = Clock::now();
	std::uint64_t downloaded_bytes = dataupdate::DownloadedBytes();
};

void Write(const std::string& id, const char* operation, const Beginning& beginning, int exit_status) {
	Json::Value object(Json::objectValue);
	object["operation"] = operation;
	object["time"] = Json::Int64{std::time(nullptr)};
	object["exit_status"] = exit_status;
	object["seconds"] = std::chrono::duration<double>(Clock::now() - beginning.time).count();
	object["downloaded_bytes"] = Json::UInt64{dataupdate::DownloadedBytes() - beginning.downloaded_bytes};
	try {
		const std::filesystem::path path = RunRecordPath(id);
		std::filesystem::create_directories(path.parent_path());
		WriteWholeFile(path, object.toStyledString());
	} catch (const std::exception& error) {
		syslog(LOG_WARNING, "The result could not be recorded: %s", error.what());
	}
}

} // namespace

std::string RunRecordPath(const std::string& id) {
	return dataupdate::StatePath(id, "last_run.json");
}

ExitCode RunRecorded(
    const Services& services, const std::string& id, const char* operation, const std::function<ExitCode()>& work) {
	const Beginning beginning;
	ExitCode code = kDone;
	try {
		code = work();
	} catch (...) {
		if (!dataupdate::IsInterruptionRequested() || !IsEarlyEnd()) {
			Write(id, operation, beginning, ExplainException(*services.io).code);
		}
		throw;
	}
	Write(id, operation, beginning, code);
	return code;
}

std::optional<RunRecord> ReadRunRecord(const std::string& id) {
	std::ifstream file(RunRecordPath(id));
	Json::Value object;
	Json::CharReaderBuilder reader;
	if (!file || !Json::parseFromStream(reader, file, &object, nullptr)) {
		return std::nullopt;
	}
	try {
		RunRecord record;
		record.operation = object["operation"].asString();
		record.time = object["time"].asInt64();
		record.exit_status = object["exit_status"].asInt();
		record.seconds = object["seconds"].asDouble();
		record.downloaded_bytes = object["downloaded_bytes"].asUInt64();
		return record;
	} catch (const Json::Exception&) {
		return std::nullopt;
	}
}

} // namespace tarn::ctl
