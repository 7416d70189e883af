#include "publisher/option_checks.h"

#include "base/text.h"
#include "publisher/publish.h"
#include "publisher/publish_error.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

namespace tarn::publisher {

namespace {

constexpr std::size_t kMaxWordLength = 64;

} // namespace

void CheckWord(const std::string& option, const std::string& word) {
	constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
	const bool fits = !word.empty() && word.size() <= kMaxWordLength && word.front() != '.' && word.front() != '-' &&
	                  word.find_first_not_of(kAllowed) == std::string::npos;
	if (!fits) {
		throw UsageError(option + " \"" + word + "\" must be 1 to " + std::to_string(kMaxWordLength) +
		                 " letters, digits, '.', '_' or '-', beginning with a letter, a digit or '_'.");
	}
}

void CheckUrl(const std::string& url) {
	const std::size_t scheme = StartsWith(url, "http://") ? 7 : StartsWith(url, "https://") ? 8 : 0;
	if (scheme == 0 || url.size() == scheme || url[scheme] == '/') {
		throw UsageError("--url \"" + url + "\" must begin with http:// or https:// and a host.");
	}
	const bool plain = std::all_of(url.begin(), url.end(), [](char c) { return c > ' ' && c < '\x7f'; });
	if (!plain || url.find_first_of("?#\"<>\\^`{|}") != std::string::npos) {
		throw UsageError("--url \"" + url + "\" must be a plain base without blanks, query or fragment.");
	}
}

void CheckKeptDiffs(int keep_diffs) {
	if (keep_diffs < 0) {
		throw UsageError("--keep-diffs " + std::to_string(keep_diffs) + " must be 0 or more.");
	}
}

void RequireRepository(const std::string& directory) {
	std::error_code error;
	if (!std::filesystem::is_directory(directory, error)) {
		throw PublishError("The repository " + directory + " is no directory that can be read.");
	}
}

std::string LinkTo(const std::string& url, const std::string& name) {
	std::string base = url;
	base.erase(base.find_last_not_of('/') + 1);
	return base + "/" + name;
}

std::optional<int> PublishedTime(const Json::Value& metadata) {
	const Json::Value published = metadata.isObject() ? metadata["published"] : Json::Value();
	const bool is_time = published.isInt64() && published.asInt64() >= 0 && published.asInt64() <= kMaxNumber;
	return is_time ? std::optional(static_cast<int>(published.asInt64())) : std::nullopt;
}

} // namespace tarn::publisher
