#include "publisher/releases/publish.h"

#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/releases/channels.h"
#include "publisher/releases/next_version.h"
#include "publisher/releases/same_content.h"
#include "publisher/repository/document_sentences.h"
#include "publisher/repository/last_publication.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/repository.h"
#include "publisher/sqlite/sqlite_content.h"

#include <filesystem>
#include <map>
#include <vector>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** Their directories are root's on devices, and whoever reads a database in WAL mode must make files beside it. */
void WarnOfWalMode(const Tree& tree, const PublishObserver& observer) {
	std::vector<std::string> names;
	for (const TreeFile& file : tree.files) {
		try {
			if (IsInWalMode(file.source)) {
				names.push_back(file.name);
			}
		} catch (const PublishError&) {
			continue; // what cannot be read ends the packing, which says why
		}
	}
	if (!names.empty()) {
		observer.warn("Ordinary users cannot read databases in WAL mode on devices, unless they open them with "
		              "immutable=1: " +
		              Listed(names) + "; execute PRAGMA journal_mode=DELETE in each before publishing.");
	}
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
	WarnOfWalMode(tree, observer);
}

/** The steps of Publish(). */
class Publication {
public:
	Publication(const PublishOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      fetch_time_(TimeOfPublication()),
	      key_(archive::SigningKey::Load(options.key_file, observer.warn)),
	      reader_(key_, options.old_keys),
	      repository_(options.repository, observer.waiting),
	      tree_(ListTree(options.tree)) {}

	PublishResult Run() {
		result_.files = tree_.files.size();
		result_.tree_size = tree_.total_size;
		previous_ = repository_.ReadEntry(options_.db_version, options_.id);
		RequireOwnPrevious();
		if (options_.if_changed && previous_ && IsUnchanged()) {
			return std::move(result_);
		}
		RequireNotWithdrawn();
		const NextVersion next = ChooseVersion(options_, repository_);
		result_.data_version = next.data_version;
		result_.is_first = next.is_first;
		if (next.is_begun) {
			fetch_time_ = TimeOfBegun(reader_, PackagePath(), options_.id, result_.data_version, fetch_time_);
		}
		result_.download_link = LinkTo(options_.url, Repository::PackageName(options_.id, result_.data_version));
		WarnAbout(tree_, result_, observer_);
		ContinueFrom(EntryToContinue(repository_, options_, result_.data_version));
		WarnOfNewDocument(repository_, options_.db_version, options_.id, observer_);
		WarnOfOtherUrl(repository_, options_, observer_);
		repository_.Clean(options_.id, result_.data_version);

		ReplacingFile package(repository_.PackagePath(options_.id, result_.data_version));
		PackageInfo info = {options_.id, options_.format_version, result_.data_version};
		info.published = fetch_time_;
		AddNotes(options_.notes, info.more);
		result_.package_size = WritePackage(tree_, info, key_, options_.level, package.Fd(), package.TemporaryPath(),
		    [&](std::uint64_t files, std::uint64_t bytes) { observer_.progress(files, bytes, tree_); });
		RequireSameAsBegun(PackagePath(), package.TemporaryPath(), result_.data_version);
		WriteDiff(package.TemporaryPath());
		repository_.RequireRoom(options_.db_version, options_.id, NewEntry()); // Before a version is used up.
		package.Commit();
		CommitDiff();
		repository_.RememberUrl(options_.url);
		repository_.WriteEntries(options_.db_version, {{options_.id, NewEntry()}});
		RemoveOldDiffs(repository_, options_.id, observer_);
		return std::move(result_);
	}

private:
	/** Whether the newest version holds the tree. What cannot be compared has changed, and is warned of. */
	bool IsUnchanged() {
		const int version = previous_->data_version;
		const std::string path = repository_.PackagePath(options_.id, version);
		try {
			const archive::ArchiveFile archive = reader_.Open(path, {options_.id, "", version});
			result_.is_unchanged =
			    ReadMetadata(archive)[kFormatKey] == options_.format_version && HoldsTree(archive, path, tree_);
			result_.package_size = archive.Head().FileSize();
		} catch (const PublishError& error) {
			observer_.warn("The tree is published without a comparison with version " + std::to_string(version) + ": " +
			               WithoutEnd(error.what()) + ".");
		}
		result_.data_version = version;
		result_.download_link = previous_->download_link;
		return result_.is_unchanged;
	}

	/** A withdrawal does not reach where the tree comes from, and a timer would publish the bad content again. */
	void RequireNotWithdrawn() {
		if (options_.even_withdrawn) {
			return;
		}
		const int newest = repository_.LastVersion(options_.id).value_or(-1);
		std::optional<int> version;
		try {
			version = FindWithdrawn(repository_, options_.id, newest, tree_);
		} catch (const PublishError& error) {
			observer_.warn("The tree is published without a comparison with withdrawn versions: " +
			               WithoutEnd(error.what()) + ".");
		}
		if (version) {
			throw PublishError("Nothing is published: the tree has the content of version " + std::to_string(*version) +
			                   " of " + options_.id + ", which was withdrawn; --even-withdrawn publishes it again.");
		}
	}

	void RequireOwnPrevious() const {
		if (previous_) {
			RequireOwnPackage(repository_, reader_, options_, previous_->data_version);
		}
	}

	/** Another channel may have published the version before. */
	void ContinueFrom(std::optional<Entry> entry) {
		const bool is_checked = !entry || (previous_ && previous_->data_version == entry->data_version);
		previous_ = std::move(entry);
		if (!is_checked) {
			RequireOwnPrevious();
		}
	}

	std::string PackagePath() const { return repository_.PackagePath(options_.id, result_.data_version); }

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

	Entry NewEntry() { return {result_.data_version, fetch_time_, result_.download_link, DiffFiles()}; }

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
