#include "host/library/hold.h"

#include "base/error.h"
#include "base/file_io.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/library/json_record.h"

#include <json/reader.h>
#include <json/value.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>

namespace tarn::ctl {

namespace {

constexpr char kUpTo[] = "up_to";
constexpr std::size_t kLargestFile = 4096;

bool IsMissing(const std::string& path) {
	struct stat status {};
	return lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

Hold Decode(const std::string& text) {
	Json::CharReaderBuilder builder;
	builder["failIfExtra"] = true;
	const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
	Json::Value value;
	Require(reader->parse(text.data(), text.data() + text.size(), &value, nullptr), "it is no JSON document");
	Require(value.isObject() && value.isMember(kUpTo), "it is no object with \"up_to\"");
	const Json::Value& up_to = value[kUpTo];
	if (up_to.isNull()) {
		return {};
	}
	Require(up_to.isInt() && up_to.asInt() >= 0, "its \"up_to\" is neither a version nor null");
	return {up_to.asInt(), ""};
}

} // namespace

std::string HoldPath(const std::string& id) {
	return dataupdate::StatePath(id, "hold.json");
}

std::optional<Hold> ReadHold(const std::string& id) {
	const std::string path = HoldPath(id);
	if (IsMissing(path)) {
		return std::nullopt;
	}
	try {
		const UniqueFd file = OpenRegularFile(AT_FDCWD, path);
		return Decode(ReadSmallFile(file.Get(), kLargestFile, path));
	} catch (const std::exception& error) { // JsonCpp has one of its own for what is nested too deeply.
		return Hold{std::nullopt, error.what()};
	}
}

void SetHold(const std::string& id, const std::optional<int>& up_to) {
	Json::Value object(Json::objectValue);
	object[kUpTo] = up_to ? Json::Value(*up_to) : Json::Value();
	object["since"] = Json::Int64{std::time(nullptr)};
	const std::filesystem::path path = HoldPath(id);
	WriteJsonRecord(path, object);
	if (!SyncDirectory(path.parent_path()) || !SyncDirectory(path.parent_path().parent_path())) {
		throw CommandError(
		    kFailed, "The hold " + path.string() + " may not outlast a power cut (" + std::strerror(errno) + ")");
	}
}

bool EndHold(const std::string& id) {
	const std::filesystem::path path = HoldPath(id);
	if (IsMissing(path)) {
		return false;
	}
	if (unlink(path.c_str()) != 0 || !SyncDirectory(path.parent_path())) {
		throw CommandError(kFailed, "The hold " + path.string() + " cannot be removed (" + std::strerror(errno) + ")");
	}
	return true;
}

std::string DescribeHold(const Hold& hold) {
	return hold.up_to ? "held at most at version " + std::to_string(*hold.up_to) : "held";
}

std::string HoldProblem(const std::string& id, const Hold& hold) {
	return hold.problem.empty() ? ""
	                            : "The hold " + HoldPath(id) + " cannot be understood (" + hold.problem + "), so " +
	                                  id + " does not change; run \"tarndbudctl hold " + id +
	                                  "\" or \"tarndbudctl unhold " + id + "\" to write or remove it";
}

void RequireNotHeld(const std::string& id, int version) {
	const std::optional<Hold> hold = ReadHold(id);
	if (!hold || hold->Allows(version)) {
		return;
	}
	if (!hold->problem.empty()) {
		throw CommandError(kHeld, HoldProblem(id, *hold));
	}
	throw CommandError(kHeld, id + " is " + DescribeHold(*hold) + ", so version " + std::to_string(version) +
	                              " was not installed; \"tarndbudctl unhold " + id +
	                              "\" ends the hold, and force-install --even-held passes over it");
}

} // namespace tarn::ctl
