#include "host/library/rejection.h"

#include "dataupdate/installation.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/failure.h"
#include "host/library/hold.h"
#include "host/library/json_record.h"

#include <json/value.h>

#include <syslog.h>

#include <ctime>
#include <exception>
#include <filesystem>

namespace tarn::ctl {

std::string RejectionPath(const std::string& id) {
	return dataupdate::StatePath(id, "refused.json");
}

std::optional<Rejection> ReadRejection(const std::string& id) {
	return ReadJsonRecord(RejectionPath(id), [](const Json::Value& object) {
		return Rejection{object["version"].asInt(), object["time"].asInt64(), object["message"].asString()};
	});
}

void RememberRejection(const std::string& id, int version, const std::string& message) {
	if (CategoryOf(message) != Category::kRefusedByCheck) {
		return;
	}
	// What comes by another way, such as a kit, must not have the server's later version downloaded again.
	if (const std::optional<Rejection> known = ReadRejection(id); known && known->version > version) {
		return;
	}
	Json::Value object(Json::objectValue);
	object["version"] = version;
	object["time"] = Json::Int64{std::time(nullptr)};
	object["message"] = message;
	try {
		WriteJsonRecord(RejectionPath(id), object);
	} catch (const std::exception& error) {
		syslog(LOG_WARNING, "The refusal could not be recorded: %s", error.what());
	}
}

void RequireNotRejected(const std::string& id, int version) {
	const std::optional<Rejection> rejection = ReadRejection(id);
	if (rejection && rejection->version == version && CategoryOf(rejection->message) == Category::kRefusedByCheck) {
		syslog(LOG_NOTICE, "Version %d of %s is not tried again, because a check refused it", version, id.c_str());
		throw dataupdate::UpdateError(rejection->message);
	}
}

std::string WayOutOfRefusal(const Services& services, const std::string& id) {
	if (!dataupdate::IsReplacementMarked(id)) {
		return "";
	}
	const std::string begin = " The files of " + id + " are of two versions, because a replacement was not finished: ";
	const int recorded = ReadInstalled(services, id).data_version;
	const std::optional<Rejection> rejection = ReadRejection(id);
	const std::optional<Hold> hold = ReadHold(id);
	const bool is_held =
	    hold && !(rejection && hold->Allows(rejection->version)); // So that a fix tried the earlier one.
	if (recorded < 0 || is_held || (rejection && rejection->version == recorded)) {
		return begin + "when the check accepts the version, \"tarndbudctl fix " + id + "\" makes them whole.";
	}
	return begin + "\"tarndbudctl hold " + id + "\" and then \"tarndbudctl fix " + id + "\" bring version " +
	       std::to_string(recorded) + " back, as long as the server has it.";
}

void ForgetRejection(const std::string& id, int installed_version) {
	const std::optional<Rejection> rejection = ReadRejection(id);
	if (!rejection || rejection->version <= installed_version) {
		std::error_code error;
		std::filesystem::remove(RejectionPath(id), error);
		if (error) {
			syslog(LOG_WARNING, "The record of a refusal could not be removed: %s", error.message().c_str());
		}
	}
}

} // namespace tarn::ctl
