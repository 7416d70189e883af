#include "publisher/repository/checks.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/common/utf8.h"
#include "publisher/packages/package.h"
#include "publisher/packages/tree.h"

#include <algorithm>
#include <filesystem>
#include <optional>
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

std::int64_t Number(const PublishOptions& options, const std::optional<int>& last) {
	const std::int64_t next = options.data_version.value_or(last ? std::int64_t{*last} + 1 : 1);
	if (last && next <= *last) {
		throw PublishError("Version " + std::to_string(next) + " of " + options.id + " is not above version " +
		                   std::to_string(*last) + ", which is published already; devices would not take it.");
	}
	if (next > kMaxNumber) {
		throw PublishError("Version " + std::to_string(next) + " of " + options.id + " is above " +
		                   std::to_string(kMaxNumber) + ", the largest that devices read.");
	}
	return next;
}

/** What takes packages into the document that the options name, but for the name of the key. */
std::string RestoreCommand(const PublishOptions& options, const std::string& more) {
	return "tarndbudpub restore --repo " + options.repository + " --db-version " + options.db_version + " --key FILE" +
	       more;
}

void RequireNamed(const PublishOptions& options, const std::vector<PackageFile>& files) {
	if (!files.empty()) {
		throw PublishError("No document names " + options.id + ", though packages of it lie in " + options.repository +
		                   "/packages/" + options.id + ", up to version " + std::to_string(files.back().data_version) +
		                   ", which devices may have. Rebuild the document by \"" + RestoreCommand(options, "") +
		                   "\"; only when no device has them, move them away and begin again.");
	}
	if (options.must_continue) {
		throw PublishError("Nothing of " + options.id + " was ever published in " + options.repository +
		                   ", and --continue allows no first publication; see that the repository is whole and the "
		                   "right one.");
	}
}

void RefuseUnnamed(const PublishOptions& options, int next, const std::vector<PackageFile>& files) {
	const std::int64_t free = std::int64_t{files.back().data_version} + 1;
	throw PublishError("Version " + std::to_string(next) + " of " + options.id +
	                   " cannot be published: " + files.back().path +
	                   " is there, no document names it, and devices may have it. Take it into the "
	                   "document by \"" +
	                   RestoreCommand(options, " --force --id " + options.id) + "\", or go past it by --data-version " +
	                   std::to_string(free) + ".");
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
	if (version && (*version < 0 || *version > kMaxNumber)) {
		throw UsageError(
		    "--data-version " + std::to_string(*version) + " must be 0 to " + std::to_string(kMaxNumber) + ".");
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
	CheckWord("--id", options.id);
	CheckWord("--format-version", options.format_version);
	CheckWord("--db-version", options.db_version);
	CheckUrl(options.url);
	CheckDataVersion(options.data_version);
	CheckKeptDiffs(options.keep_diffs);
	CheckNotes(options.notes);
	if (options.memory_mib < kMinMemoryMib || options.memory_mib > kMaxMemoryMib) {
		throw UsageError("--memory " + std::to_string(options.memory_mib) + " must be " +
		                 std::to_string(kMinMemoryMib) + " to " + std::to_string(kMaxMemoryMib) + " MiB.");
	}
	if (options.level < archive::kMinLevel || options.level > archive::kMaxLevel) {
		throw UsageError("--level " + std::to_string(options.level) + " must be " + std::to_string(archive::kMinLevel) +
		                 " to " + std::to_string(archive::kMaxLevel) + ".");
	}
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
}

NextVersion ChooseVersion(const PublishOptions& options, const Repository& repository) {
	const std::optional<int> last = repository.LastVersion(options.id);
	const std::vector<PackageFile> files = repository.Packages(options.id);
	if (!last) {
		RequireNamed(options, files);
	}
	NextVersion next;
	next.data_version = static_cast<int>(Number(options, last));
	next.is_first = !last;
	const auto is_next = [&](const PackageFile& file) { return file.data_version == next.data_version; };
	next.is_begun = std::any_of(
	    files.begin(), files.end(), [&](const PackageFile& file) { return is_next(file) && !file.is_diff; });
	// A publisher puts the full package in place first, so that a killed publisher never leaves a diff package alone.
	if (!files.empty() &&
	    (files.back().data_version > next.data_version || (is_next(files.back()) && !next.is_begun))) {
		RefuseUnnamed(options, next.data_version, files);
	}
	return next;
}

} // namespace tarn::publisher
