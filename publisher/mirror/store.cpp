#include "publisher/mirror/store.h"

#include "base/text.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"

#include <cstddef>
#include <ctime>
#include <sstream>
#include <utility>

namespace tarn::publisher {

namespace {

// What packaging/nginx/tarndbud.conf says of both kinds of file.
constexpr const char* kPackageType = "Content-Type: application/octet-stream";
constexpr const char* kPackageCache = "Cache-Control: public, max-age=31536000, immutable";
constexpr const char* kDocumentType = "Content-Type: application/json";
constexpr const char* kDocumentCache = "Cache-Control: no-cache";

// Larger than every document, so that rclone knows the size before it begins, and does not write in parts.
constexpr const char* kWholeUpTo = "--streaming-upload-cutoff=8M";

bool IsHidden(const std::string& name) {
	return name.front() == '.' || name.find("/.") != std::string::npos;
}

std::string Lines(const std::vector<std::string>& names) {
	std::string lines;
	for (const std::string& name : names) {
		lines += name + "\n";
	}
	return lines;
}

[[noreturn]] void FailTo(const std::string& attempt, const RcloneResult& result) {
	throw PublishError(attempt + ": " + result.Description() + ".");
}

/** The seconds that a time zone such as "+01:30" is ahead; no value for other texts. */
std::optional<std::int64_t> ParseZone(const std::string& zone) {
	constexpr std::size_t kLength = 6;
	if (zone == "Z") {
		return 0;
	}
	std::tm ahead = {};
	if (zone.size() != kLength || (zone[0] != '+' && zone[0] != '-') ||
	    strptime(zone.c_str() + 1, "%H:%M", &ahead) == nullptr) {
		return std::nullopt;
	}
	constexpr int kMinute = 60;
	constexpr int kHour = 3600;
	const std::int64_t seconds = std::int64_t{ahead.tm_hour} * kHour + std::int64_t{ahead.tm_min} * kMinute;
	return zone[0] == '+' ? seconds : -seconds;
}

} // namespace

std::optional<std::int64_t> ParseTime(const std::string& text) {
	std::tm parts = {};
	const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
	if (rest == nullptr) {
		return std::nullopt;
	}
	std::string zone = rest;
	if (StartsWith(zone, ".")) {
		zone.erase(0, zone.find_first_not_of("0123456789", 1));
	}
	const std::optional<std::int64_t> ahead = ParseZone(zone);
	return ahead ? std::optional(timegm(&parts) - *ahead) : std::nullopt;
}

Store::Store(std::string remote, TransferProgress progress)
    : remote_(std::move(remote)), progress_(std::move(progress)) {}

std::string Store::PathOf(const std::string& name) const {
	const bool is_joined = EndsWith(remote_, ":") || EndsWith(remote_, "/");
	return remote_ + (is_joined ? "" : "/") + name;
}

CarriedFiles Store::List() const {
	const RcloneResult result =
	    RunRclone({"lsjson", "-R", "--files-only", "--no-mimetype", "--use-server-modtime", "--fast-list",
	                  "--include=/packages/**", "--include=/database_info/*", remote_},
	        "", {});
	if (result.IsMissing()) {
		return {};
	}
	const std::optional<Json::Value> list = result.IsDone() ? ParseJson(result.output) : std::nullopt;
	if (!list || !list->isArray()) {
		FailTo(remote_ + " cannot be listed", result);
	}
	CarriedFiles files;
	for (const Json::Value& file : *list) {
		const std::string name = file["Path"].asString();
		if (!name.empty() && !IsHidden(name)) {
			files[name] = {file["Size"].asUInt64(), ParseTime(file["ModTime"].asString())};
		}
	}
	return files;
}

std::string Store::Read(const std::string& name) const {
	RcloneResult result = RunRclone({"cat", PathOf(name)}, "", {});
	if (!result.IsDone()) {
		FailTo(PathOf(name) + " cannot be read", result);
	}
	return std::move(result.output);
}

void Store::Write(const std::string& name, const std::string& text) const {
	const RcloneResult result = RunRclone(
	    {"rcat", kWholeUpTo, "--header-upload", kDocumentType, "--header-upload", kDocumentCache, PathOf(name)}, text,
	    {});
	if (!result.IsDone()) {
		FailTo(PathOf(name) + " could not be written", result);
	}
}

RcloneResult Store::Carry(const std::string& repository, const std::vector<std::string>& names) const {
	return RunRclone({"copy", "--files-from-raw=-", "--no-traverse", "--ignore-times", "--copy-links",
	                     "--header-upload", kPackageType, "--header-upload", kPackageCache, repository, remote_},
	    Lines(names), progress_);
}

Comparison Store::Compare(const std::string& repository, const std::vector<std::string>& names) const {
	Comparison found;
	found.run = RunRclone({"check", "--download", "--one-way", "--files-from-raw=-", "--no-traverse", "--copy-links",
	                          "--combined=-", repository, remote_},
	    Lines(names), {});
	std::istringstream report(found.run.output);
	for (std::string line; std::getline(report, line);) { // "= NAME" when it is the same, "*" other, "+" not there
		if (StartsWith(line, "= ")) {
			found.same.push_back(line.substr(2));
		} else if (StartsWith(line, "* ") || StartsWith(line, "+ ")) {
			found.differing.push_back(line.substr(2));
		}
	}
	return found;
}

void Store::Remove(const std::vector<std::string>& names) const {
	if (names.empty()) {
		return;
	}
	const RcloneResult result = RunRclone({"delete", "--files-from-raw=-", "--no-traverse", remote_}, Lines(names), {});
	if (!result.IsDone()) {
		FailTo("What is no longer needed could not be deleted at " + remote_, result);
	}
}

} // namespace tarn::publisher
