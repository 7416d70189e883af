#include "publisher/publish.h"

#include "base/text.h"
#include "publisher/checks.h"
#include "publisher/diff_maker.h"
#include "publisher/files.h"
#include "publisher/repository.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <string_view>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTimeVariable = "SOURCE_DATE_EPOCH";

// Reproducible builds set the variable.
int FetchTime() {
	const char* text = std::getenv(kTimeVariable);
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

void WarnAbout(const Tree& tree, const PublishResult& result, const PublishObserver& observer) {
	if (tree.empty_directories > 0) {
		observer.warn("The tree has " + std::to_string(tree.empty_directories) +
		              " empty directories, which devices do not install.");
	}
	const std::string digits = std::to_string(result.data_version);
	if (result.download_link.find(digits) != result.download_link.rfind(digits)) {
		observer.warn("The digits of version " + digits + " stand more than once in the link " + result.download_link +
		              "; a device that is told to install another version rewrites them all.");
	}
}

/** The steps of Publish(). */
class Publication {
public:
	Publication(const PublishOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      fetch_time_(FetchTime()),
	      key_(archive::SigningKey::Load(options.key_file, observer.warn)),
	      reader_(key_, options.old_keys),
	      repository_(options.repository, observer.waiting),
	      tree_(ListTree(options.tree)) {}

	PublishResult Run() {
		const NextVersion next = ChooseVersion(options_, repository_);
		result_.data_version = next.data_version;
		result_.is_first = next.is_first;
		if (next.is_begun) {
			TakeUp();
		}
		result_.files = tree_.files.size();
		result_.tree_size = tree_.total_size;
		result_.download_link = LinkTo(options_.url, Repository::PackageName(options_.id, result_.data_version));
		WarnAbout(tree_, result_, observer_);
		previous_ = repository_.ReadEntry(options_.db_version, options_.id);
		repository_.Clean(options_.id, result_.data_version);

		ReplacingFile package(repository_.PackagePath(options_.id, result_.data_version));
		PackageInfo info = {options_.id, options_.format_version, result_.data_version};
		info.published = fetch_time_;
		result_.package_size = WritePackage(tree_, info, key_, options_.level, package.Fd(), package.TemporaryPath(),
		    [&](std::uint64_t files, std::uint64_t bytes) { observer_.progress(files, bytes, tree_); });
		RequireSame(package.TemporaryPath());
		WriteDiff(package.TemporaryPath());
		package.Commit();
		CommitDiff();
		repository_.RememberUrl(options_.url);
		repository_.WriteEntry(options_.db_version, options_.id,
		    {result_.data_version, fetch_time_, result_.download_link, DiffFiles(), result_.package_size});
		Sweep();
		return std::move(result_);
	}

private:
	std::string PackagePath() const { return repository_.PackagePath(options_.id, result_.data_version); }

	/** Continues after a publisher that was killed with its package in place: the package's time makes the same bytes.
	 */
	void TakeUp() {
		try {
			const Json::Value metadata =
			    ReadMetadata(reader_.Open(PackagePath(), {options_.id, "", result_.data_version}));
			if (const auto published = PublishedTime(metadata); published && std::getenv(kTimeVariable) == nullptr) {
				fetch_time_ = *published;
			}
		} catch (const PublishError&) {
			RefuseToReplace();
		}
	}

	/** A package of this name that is there already must be the same: devices or caches may have it. */
	void RequireSame(const std::string& package) {
		if (fs::exists(PackagePath()) && !SameBytes(PackagePath(), package)) {
			RefuseToReplace();
		}
	}

	[[noreturn]] void RefuseToReplace() const {
		throw PublishError("The package " + PackagePath() +
		                   " is there already, with another content than this tree "
		                   "makes, and is not replaced: devices and caches may have it, though no document names it. "
		                   "Publish with --data-version " +
		                   std::to_string(std::int64_t{result_.data_version} + 1) +
		                   ", or remove it when it was never served.");
	}

	/** Makes the diff package when there can be one. A failure is a warning: the version is published without. */
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
			const std::string path = repository_.DiffPath(options_.id, result_.data_version);
			if (diff_ && fs::exists(path) && !SameBytes(path, diff_->TemporaryPath())) {
				throw PublishError(path + " is there already, with another content, and caches may have it");
			}
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
		observer_.warn("Version " + std::to_string(result_.data_version) +
		               " has no diff package: " + WithoutEnd(error.what()) + ". Devices take the full package.");
	}

	/** Removes the diff packages that the document names no longer. A failure is a warning. */
	void Sweep() {
		try {
			repository_.Clean(options_.id);
		} catch (const std::exception& error) {
			observer_.warn(std::string("Old diff packages could not be removed: ") + error.what());
		}
	}

	/** What the document says about diff packages: nothing without the newest, since older ones lead nowhere then. */
	std::map<int, DiffFile> DiffFiles() {
		std::map<int, DiffFile> files;
		if (!result_.diff) {
			return files;
		}
		for (const int version : result_.diff->earlier) {
			files[version] = previous_->diff_files.at(version);
		}
		files[result_.data_version] = {LinkTo(options_.url, Repository::DiffName(options_.id, result_.data_version)),
		    static_cast<int>(result_.diff->package_size)};
		KeepNewest(files, options_.keep_diffs, result_.package_size);
		result_.diff->oldest_base = files.begin()->first - 1;
		return files;
	}

	const PublishOptions& options_;
	const PublishObserver& observer_;
	int fetch_time_;
	archive::SigningKey key_;
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
	if (options.must_continue) {
		RequireRepository(options.repository);
	}
	return Publication(options, observer).Run();
}

} // namespace tarn::publisher
