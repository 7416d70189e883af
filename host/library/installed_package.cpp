#include "host/library/installed_package.h"

#include "base/file_io.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/library/json_record.h"

#include <tarncodesign/tarncodesign.h>

#include <json/reader.h>
#include <json/value.h>

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

// An appliance's own platform may lack what tells of packages.
#pragma weak tarnarchive_observe
#pragma weak tarnarchive_refusal

namespace tarn::ctl {

namespace {

constexpr char kUnreadable[] = "what it says about itself cannot be read";

void Listen(tarnarchive_observer observer, void* data) {
	if (tarnarchive_observe != nullptr) {
		tarnarchive_observe(observer, data);
	}
}

} // namespace

OpenedPackages::OpenedPackages(std::optional<int> expected) : expected_(expected) {
	const auto tell = [](void* data, const char* /*package*/, const char* metadata) {
		return static_cast<OpenedPackages*>(data)->Hear(metadata);
	};
	Listen(tell, this);
}

OpenedPackages::~OpenedPackages() {
	Listen(nullptr, nullptr);
}

std::optional<OpenedPackage> OpenedPackages::Last(const std::string& id) const {
	const auto package = last_.find(id);
	return package == last_.end() ? std::nullopt : std::optional(package->second);
}

const char* OpenedPackages::Hear(const char* metadata) noexcept {
	try {
		objection_ = Note(metadata);
		return objection_.empty() ? nullptr : objection_.c_str();
	} catch (const std::exception&) {
		return kUnreadable;
	}
}

std::string OpenedPackages::Note(const char* metadata) {
	Json::Value value;
	const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
	reader->parse(metadata, metadata + std::strlen(metadata), &value, nullptr);
	if (!value.isObject() || !value["id"].isString() || !value["data_version"].isInt()) {
		return kUnreadable;
	}
	OpenedPackage package;
	package.data_version = value["data_version"].asInt();
	if (value["published"].isInt64()) {
		package.published = value["published"].asInt64();
	}
	const std::string id = value["id"].asString();
	if (expected_ && package.data_version != *expected_) {
		return "version " + std::to_string(*expected_) + " of " + id + " is asked for, and this is version " +
		       std::to_string(package.data_version);
	}
	last_[id] = package;
	return "";
}

std::optional<PackageRefusal> LastPackageRefusal() {
	const char* reason = nullptr;
	const int kind = tarnarchive_refusal == nullptr ? TARNARCHIVE_NO_REFUSAL : tarnarchive_refusal(&reason);
	if (kind == TARNARCHIVE_NO_REFUSAL) {
		return std::nullopt;
	}
	return PackageRefusal{kind == TARNARCHIVE_NOT_ASKED_FOR, reason};
}

std::string InstalledPackagePath(const std::string& id) {
	return dataupdate::StatePath(id, "installed_package.json");
}

void ForgetInstalledPackage(const std::string& id) {
	const std::string path = InstalledPackagePath(id);
	if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) {
		throw CommandError(kFailed, "The file " + path + " cannot be removed (" + std::strerror(errno) + ")");
	}
}

void RecordInstalledPackage(const std::string& id, const OpenedPackage& package) {
	if (!package.published) {
		return;
	}
	Json::Value object(Json::objectValue);
	object["data_version"] = package.data_version;
	object["published"] = Json::Int64{*package.published};
	try {
		WriteWholeFile(InstalledPackagePath(id), object.toStyledString());
	} catch (const std::exception& error) {
		syslog(LOG_WARNING, "The time of publication could not be recorded: %s", error.what());
	}
}

std::optional<std::int64_t> PublicationTime(const std::string& id, int installed_version) {
	const Json::Value object = ReadJsonRecord(InstalledPackagePath(id));
	const bool is_of_it = object.isObject() && object["data_version"].isInt() &&
	                      object["data_version"].asInt() == installed_version && object["published"].isInt64();
	return is_of_it ? std::optional(object["published"].asInt64()) : std::nullopt;
}

} // namespace tarn::ctl
