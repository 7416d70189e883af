#include "publisher/mirror/store.h"

#include "base/text.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"

#include <cstring>
#include <ctime>
#include <sstream>

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

void RequireDone(bool is_done, const std::string& attempt, const RcloneResult& result) {
	if (!is_done) {
		throw PublishError(attempt + ": " + result.Description() + ".");
	}
}

} // namespace

std::optional<std::int64_t> ParseTime(const std::string& text) {
	std::tm parts = {};
	const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
	if (rest == nullptr) {
		return std::nullopt;
	}
	if (*rest == '.') {
		rest += 1 + std::strspn(rest + 1, "0123456789");
	}
	std::tm zone = {};
	const char* end = strptime(rest, "%z", &zone); // "Z" or "+01:30"
	return end != nullptr && *end == '\0' ? std::optional(timegm(&parts) - zone.tm_gmtoff) : std::nullopt;
}

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
	RequireDone(list && list->isArray(), remote_ + " cannot be listed", result);
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
	RequireDone(result.IsDone(), PathOf(name) + " cannot be read", result);
	return std::move(result.output);
}

void Store::Write(const std::string& name, const std::string& text) const {
	const RcloneResult result = RunRclone(
	    {"rcat", kWholeUpTo, "--header-upload", kDocumentType, "--header-upload", kDocumentCache, PathOf(name)}, text,
	    {});
	RequireDone(result.IsDone(), PathOf(name) + " could not be written", result);
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
	RequireDone(result.IsDone(), "What is no longer needed could not be deleted at " + remote_, result);
}

} // namespace tarn::publisher
