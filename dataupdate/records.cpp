#include "dataupdate/records.h"

#include "dataupdate/messages.h"
#include "dataupdate/update_error.h"

namespace tarn::dataupdate {

DiffInfo::DiffInfo(const std::string& link, int bytes) : download_link(link), file_size(bytes) {}

DiffInfo DiffInfo::FromJson(const Json::Value& json) {
	if (!json["download_link"].isString() || !json["file_size"].isInt()) {
		throw UpdateError(std::string(messages::kInvalidRecord) + "DiffInfo");
	}
	return {json["download_link"].asString(), json["file_size"].asInt()};
}

std::map<int, DiffInfo> DiffInfo::BatchFromJson(const Json::Value& json) {
	std::map<int, DiffInfo> infos;
	for (auto member = json.begin(); member != json.end(); ++member) {
		const DiffInfo info = FromJson(*member);
		infos.emplace(std::stoi(member.name()), info);
	}
	return infos;
}

bool DiffInfo::operator==(const DiffInfo& other) const {
	return download_link == other.download_link && file_size == other.file_size;
}

FileStatus::FileStatus(const std::string& digest) : sha384_digest(digest) {}

FileStatus FileStatus::FromJson(const Json::Value& json) {
	if (!json["sha384_digest"].isString()) {
		throw UpdateError(std::string(messages::kInvalidRecord) + "FileStatus");
	}
	return FileStatus(json["sha384_digest"].asString());
}

Json::Value FileStatus::ToJson(const FileStatus& status) {
	Json::Value json(Json::objectValue);
	json["sha384_digest"] = status.sha384_digest;
	return json;
}

std::map<std::string, FileStatus> FileStatus::BatchFromJson(const Json::Value& json) {
	if (!json.isObject()) {
		throw UpdateError(std::string(messages::kInvalidRecord) + "FileStatuses");
	}
	std::map<std::string, FileStatus> statuses;
	for (auto member = json.begin(); member != json.end(); ++member) {
		statuses.emplace(member.name(), FromJson(*member));
	}
	return statuses;
}

Json::Value FileStatus::BatchToJson(const std::map<std::string, FileStatus>& statuses) {
	Json::Value json(Json::objectValue);
	for (const auto& [name, status] : statuses) {
		json[name] = ToJson(status);
	}
	return json;
}

bool FileStatus::operator==(const FileStatus& other) const {
	return sha384_digest == other.sha384_digest;
}

bool FileStatus::operator!=(const FileStatus& other) const {
	return !(*this == other);
}

RemoteInfo::RemoteInfo(int version, int fetch_time, bool is_deprecated, const std::string& link)
    : data_version(version), last_fetch_time(fetch_time), deprecated(is_deprecated), download_link(link) {}

RemoteInfo RemoteInfo::FromJson(const Json::Value& json) {
	if (!json["data_version"].isString() || !json["last_fetch_time"].isInt() || !json["deprecated"].isBool() ||
	    !json["download_link"].isString()) {
		throw UpdateError(std::string(messages::kInvalidRecord) + "RemoteInfo");
	}
	return {std::stoi(json["data_version"].asString()), json["last_fetch_time"].asInt(), json["deprecated"].asBool(),
	    json["download_link"].asString()};
}

Json::Value RemoteInfo::ToJson(const RemoteInfo& info) {
	Json::Value json(Json::objectValue);
	json["data_version"] = std::to_string(info.data_version);
	json["last_fetch_time"] = info.last_fetch_time;
	json["deprecated"] = info.deprecated;
	json["download_link"] = info.download_link;
	return json;
}

bool RemoteInfo::operator==(const RemoteInfo& other) const {
	return data_version == other.data_version && last_fetch_time == other.last_fetch_time &&
	       deprecated == other.deprecated && download_link == other.download_link;
}

DatabaseStatus DatabaseStatus::FromJson(const Json::Value& json) {
	if (!json["data_version"].isString() || !json["last_fetch_time"].isInt() || !json["file_statuses"].isObject()) {
		throw UpdateError(std::string(messages::kInvalidRecord) + "DatabaseStatus");
	}
	DatabaseStatus status;
	status.last_fetch_time = json["last_fetch_time"].asInt();
	status.file_statuses = FileStatus::BatchFromJson(json["file_statuses"]);
	status.data_version = std::stoi(json["data_version"].asString());
	return status;
}

Json::Value DatabaseStatus::ToJson(const DatabaseStatus& status) {
	Json::Value json(Json::objectValue);
	json["data_version"] = std::to_string(status.data_version);
	json["last_fetch_time"] = status.last_fetch_time;
	json["file_statuses"] = FileStatus::BatchToJson(status.file_statuses);
	return json;
}

bool DatabaseStatus::operator==(const DatabaseStatus& other) const {
	return data_version == other.data_version && last_fetch_time == other.last_fetch_time &&
	       file_statuses == other.file_statuses;
}

bool DatabaseStatus::operator!=(const DatabaseStatus& other) const {
	return !(*this == other);
}

} // namespace tarn::dataupdate
