#include "publish.h"

#include "diff_chain.h"
#include "diff_maker.h"
#include "publish_error.h"
#include "replacing_file.h"
#include "repository.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <string_view>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kMaxNumber = std::numeric_limits<int>::max();
constexpr std::size_t kMaxWordLength = 64;

bool StartsWith(const std::string& text, std::string_view prefix) {
	return text.compare(0, prefix.size(), prefix) == 0;
}

// What stands in file names, links and query strings alike, where nothing is escaped.
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

bool Contains(const fs::path& outer, const fs::path& inner) {
	return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

void CheckApart(const PublishOptions& options) {
	std::error_code error;
	const fs::path tree = fs::canonical(options.tree, error);
	if (error || !fs::is_directory(tree)) {
		throw PublishError("The tree " + options.tree + " is no directory that can be read.");
	}
	const fs::path repository = fs::weakly_canonical(fs::absolute(options.repository));
	if (Contains(tree, repository) || Contains(repository, tree)) {
		throw PublishError("The tree " + options.tree + " and the repository " + options.repository +
		                   " must not lie within each other.");
	}
}

int ChooseVersion(const PublishOptions& options, const std::optional<int>& last) {
	const std::int64_t next = options.data_version.value_or(last ? std::int64_t{*last} + 1 : 1);
	if (last && next <= *last) {
		throw PublishError("Version " + std::to_string(next) + " of " + options.id + " is not above version " +
		                   std::to_string(*last) + ", which is published already; devices would not take it.");
	}
	if (next > kMaxNumber) {
		throw PublishError("Version " + std::to_string(next) + " of " + options.id + " is above " +
		                   std::to_string(kMaxNumber) + ", the largest that devices read.");
	}
	return static_cast<int>(next);
}

// Reproducible builds set the variable; for everybody else it is now.
int FetchTime() {
	const char* text = std::getenv("SOURCE_DATE_EPOCH");
	std::int64_t seconds = std::time(nullptr);
	if (text != nullptr) {
		const std::string_view digits(text);
		const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), seconds);
		if (result.ec != std::errc() || result.ptr != digits.data() + digits.size()) {
			throw UsageError("SOURCE_DATE_EPOCH \"" + std::string(digits) + "\" is no number.");
		}
	}
	if (seconds < 0 || seconds > kMaxNumber) {
		throw PublishError("The time " + std::to_string(seconds) + " does not fit what devices read, 0 to " +
		                   std::to_string(kMaxNumber) + ".");
	}
	return static_cast<int>(seconds);
}

std::size_t CountOccurrences(const std::string& text, const std::string& part) {
	std::size_t count = 0;
	for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
		++count;
	}
	return count;
}

void WarnAbout(const Tree& tree, const PublishResult& result, const PublishObserver& observer) {
	if (tree.empty_directories > 0) {
		observer.warn("The tree has " + std::to_string(tree.empty_directories) +
		              " empty directories, which devices do not install.");
	}
	if (CountOccurrences(result.download_link, std::to_string(result.data_version)) > 1) {
		observer.warn("The digits of version " + std::to_string(result.data_version) +
		              " stand more than once in the link " + result.download_link +
		              "; a device that is told to install another version rewrites them all.");
	}
}

} // namespace

void CheckOptions(const PublishOptions& options) {
	CheckWord("--id", options.id);
	CheckWord("--format-version", options.format_version);
	CheckWord("--db-version", options.db_version);
	CheckUrl(options.url);
	if (options.data_version && (*options.data_version < 0 || *options.data_version > kMaxNumber)) {
		throw UsageError("--data-version " + std::to_string(*options.data_version) + " must be 0 to " +
		                 std::to_string(kMaxNumber) + ".");
	}
	if (options.keep_diffs < 0) {
		throw UsageError("--keep-diffs " + std::to_string(options.keep_diffs) + " must be 0 or more.");
	}
	if (options.level < kMinLevel || options.level > kMaxLevel) {
		throw UsageError("--level " + std::to_string(options.level) + " must be " + std::to_string(kMinLevel) + " to " +
		                 std::to_string(kMaxLevel) + ".");
	}
}

namespace {

std::string LinkTo(const PublishOptions& options, const std::string& name) {
	std::string base = options.url;
	base.erase(base.find_last_not_of('/') + 1);
	return base + "/" + name;
}

/** Publishes one version; the steps of Publish(). */
class Publication {
public:
	Publication(const PublishOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      fetch_time_(FetchTime()),
	      key_(SigningKey::Load(options.key_file)),
	      reader_(key_, options.old_keys),
	      repository_(options.repository, observer.waiting),
	      tree_(ListTree(options.tree)) {}

	PublishResult Run() {
		result_.data_version = ChooseVersion(options_, repository_.LastVersion(options_.id));
		result_.files = tree_.files.size();
		result_.tree_size = tree_.total_size;
		result_.download_link = LinkTo(options_, Repository::PackageName(options_.id, result_.data_version));
		WarnAbout(tree_, result_, observer_);
		previous_ = repository_.ReadEntry(options_.db_version, options_.id);
		repository_.Clean(options_.id);

		ReplacingFile package(repository_.PackagePath(options_.id, result_.data_version));
		PackageInfo info = {options_.id, options_.format_version, result_.data_version};
		info.published = fetch_time_;
		result_.package_size = WritePackage(tree_, info, key_, options_.level, package.Fd(), package.TemporaryPath(),
		    [&](std::uint64_t files, std::uint64_t bytes) { observer_.progress(files, bytes, tree_); });
		WriteDiff(package.TemporaryPath());
		package.Commit();
		CommitDiff();
		repository_.WriteEntry(
		    options_.db_version, options_.id, {result_.data_version, fetch_time_, result_.download_link, DiffFiles()});
		Sweep();
		return std::move(result_);
	}

private:
	/** Makes the diff package when there can be one; no reason against it is one against publishing. */
	void WriteDiff(const std::string& package) {
		if (!previous_ || options_.keep_diffs == 0) {
			return;
		}
		try {
			if (previous_->data_version != result_.data_version - 1) {
				throw PublishError("devices have version " + std::to_string(previous_->data_version) +
				                   ", and every step by one version needs a diff package");
			}
			diff_.emplace(repository_.DiffPath(options_.id, result_.data_version));
			const DiffOrder order = {
			    repository_, options_, key_, reader_, *previous_, package, result_.package_size, fetch_time_};
			result_.diff = MakeDiff(order, diff_->Fd(), diff_->TemporaryPath(), observer_);
		} catch (const std::exception& error) {
			GiveUpDiff(error);
		}
	}

	void CommitDiff() {
		try {
			if (diff_) {
				diff_->Commit();
			}
		} catch (const std::exception& error) {
			GiveUpDiff(error);
		}
	}

	void GiveUpDiff(const std::exception& error) {
		diff_.reset();
		result_.diff.reset();
		std::string why = error.what();
		why.erase(why.find_last_not_of('.') + 1);
		observer_.warn("Version " + std::to_string(result_.data_version) + " has no diff package: " + why +
		               ". Devices take the full package.");
	}

	/** Removes the diff packages that the document names no longer; what is published stays published without it. */
	void Sweep() {
		try {
			repository_.Clean(options_.id);
		} catch (const std::exception& error) {
			observer_.warn(std::string("Old diff packages could not be removed: ") + error.what());
		}
	}

	/** What the document says about diff packages: without the newest, those below it lead nowhere. */
	std::map<int, DiffFile> DiffFiles() {
		std::map<int, DiffFile> files;
		if (!result_.diff) {
			return files;
		}
		for (const int version : result_.diff->earlier) {
			files[version] = previous_->diff_files.at(version);
		}
		files[result_.data_version] = {LinkTo(options_, Repository::DiffName(options_.id, result_.data_version)),
		    static_cast<int>(result_.diff->package_size)};
		while (files.size() > static_cast<std::size_t>(options_.keep_diffs)) {
			files.erase(files.begin());
		}
		result_.diff->oldest_base = files.begin()->first - 1;
		return files;
	}

	const PublishOptions& options_;
	const PublishObserver& observer_;
	int fetch_time_;
	SigningKey key_;
	PackageReader reader_;
	Repository repository_;
	Tree tree_;
	PublishResult result_;
	std::optional<Entry> previous_;
	std::optional<ReplacingFile> diff_;
};

} // namespace

PublishResult Publish(const PublishOptions& options, const PublishObserver& observer) {
	CheckOptions(options);
	CheckApart(options);
	return Publication(options, observer).Run();
}

} // namespace tarn::publisher
