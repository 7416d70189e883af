#include "publisher/repository/option_checks.h"

#include "base/text.h"
#include "publisher/common/utf8.h"
#include "publisher/packages/package.h"
#include "publisher/packages/tree.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** Whether a text is UTF-8 without control characters. */
bool IsOneLine(std::string_view text) {
	while (!text.empty()) {
		const std::optional<char32_t> character = TakeCharacter(text);
		if (!character || IsControl(*character)) {
			return false;
		}
	}
	return true;
}

/** Devices lock a database by a file that its id names, and all updates by one named "any". */
void CheckId(const std::string& id) {
	CheckWord("--id", id);
	if (id == "any") {
		throw UsageError("--id \"any\" cannot be used: on devices, the lock of a database of that name is the lock of "
		                 "all updates.");
	}
}

} // namespace

void CheckWord(const std::string& option, const std::string& word) {
	constexpr std::size_t kMaxLength = 64;
	constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
	const bool fits = !word.empty() && word.size() <= kMaxLength && word.front() != '.' && word.front() != '-' &&
	                  word.find_first_not_of(kAllowed) == std::string::npos;
	if (!fits) {
		throw UsageError(option + " \"" + word + "\" must be 1 to " + std::to_string(kMaxLength) +
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

void CheckKeptDiffs(const KeptDiffs& keep_diffs) {
	if (keep_diffs && *keep_diffs < 0) {
		throw UsageError("--keep-diffs " + std::to_string(*keep_diffs) + " must be 0 or more.");
	}
}

void CheckDataVersion(const std::optional<std::int64_t>& version) {
	if (version) {
		CheckRange<std::int64_t>("--data-version", *version, 0, kMaxNumber);
	}
}

void CheckNotes(const std::string& notes) {
	constexpr std::size_t kMaxNotes = 1000;
	if (notes.size() > kMaxNotes) {
		throw UsageError("--notes has " + std::to_string(notes.size()) + " bytes; at most " +
		                 std::to_string(kMaxNotes) + " are possible.");
	}
	if (!IsOneLine(notes)) {
		throw UsageError("--notes must be one line of UTF-8 without control characters.");
	}
}

void RequireRepository(const std::string& directory) {
	std::error_code error;
	if (!fs::is_directory(directory, error)) {
		throw PublishError("The repository " + directory + " is no directory that can be read.");
	}
}

void CheckOptions(const PublishOptions& options) {
	CheckId(options.id);
	CheckWord("--format-version", options.format_version);
	CheckWord("--db-version", options.db_version);
	CheckUrl(options.url);
	CheckDataVersion(options.data_version);
	CheckKeptDiffs(options.keep_diffs);
	CheckNotes(options.notes);
	CheckRange("--memory", options.memory_mib, kMinMemoryMib, kMaxMemoryMib, " MiB");
	CheckRange("--level", options.level, archive::kMinLevel, archive::kMaxLevel);
}

void CheckApart(const PublishOptions& options) {
	std::error_code error;
	const fs::path tree = fs::canonical(options.tree, error);
	if (error || !fs::is_directory(tree)) {
		throw PublishError("The tree " + options.tree + " is no directory that can be read.");
	}
	const fs::path repository = fs::weakly_canonical(fs::absolute(options.repository));
	if (IsBeneath(repository, tree) || IsBeneath(tree, repository)) {
		throw PublishError("The tree " + options.tree + " and the repository " + options.repository +
		                   " must not lie within each other.");
	}
	const fs::path key = fs::weakly_canonical(fs::absolute(options.key_file));
	for (const fs::path& public_place : {tree, repository}) {
		if (IsBeneath(key, public_place)) {
			throw PublishError("The private key " + options.key_file + " lies in " + public_place.string() +
			                   ", where everybody would get it; move it elsewhere.");
		}
	}
}

} // namespace tarn::publisher
