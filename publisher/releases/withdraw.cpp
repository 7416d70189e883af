#include "publisher/releases/withdraw.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/next_version.h"
#include "publisher/releases/same_content.h"
#include "publisher/releases/withdrawal_diffs.h"
#include "publisher/releases/withdrawal_versions.h"
#include "publisher/repository/document_sentences.h"
#include "publisher/repository/last_publication.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/withdrawn_packages.h"

#include <filesystem>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

Entry RequireEntry(const Repository& repository, const PublishOptions& options) {
	if (auto entry = repository.ReadEntry(options.db_version, options.id)) {
		return *entry;
	}
	const std::string naming = NamingDocuments(repository, options.id);
	throw PublishError(WhyNotNamed(repository, options.db_version, options.id) +
	                   (naming.empty() ? "." : "; --channel has to be one of those that name it: " + naming + "."));
}

/** The steps of Withdraw(). */
class Withdrawal {
public:
	Withdrawal(const PublishOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      fetch_time_(TimeOfPublication()),
	      key_(archive::SigningKey::Load(options.key_file, observer.warn)),
	      reader_(key_, options.old_keys),
	      repository_(options.repository, observer.waiting) {}

	WithdrawResult Run(const std::optional<std::int64_t>& to) {
		Begin();
		result_.withdrawn = previous_.data_version;
		result_.restored = versions_->Choose(to);
		Number();
		repository_.Clean(options_.id, Version());
		const WorkDirectory work(repository_.Directory());
		const Tree tree = Restore(work);
		Published().files = tree.files.size();
		Published().tree_size = tree.total_size;
		if (IsThereAlready(tree)) {
			return std::move(result_);
		}
		ReplacingFile package(repository_.PackagePath(options_.id, Version()));
		WriteFull(tree, package);
		const WithdrawalOrder order = {repository_, options_, key_, reader_, *chain_, *versions_, work,
		    result_.restored, result_.withdrawn, tree, format_version_, Published().package_size, fetch_time_};
		WithdrawalDiffs diffs(order);
		const bool has_diffs = MakeDiffs(diffs);
		repository_.RequireRoom(
		    options_.db_version, options_.id, NewEntry(diffs, has_diffs)); // Before a version is used up.
		package.Commit();
		Document(diffs, NewEntry(diffs, has_diffs && CommitDiffs(diffs)));
		return std::move(result_);
	}

private:
	int Version() const { return result_.published.data_version; }
	PublishResult& Published() { return result_.published; }

	void Begin() {
		previous_ = RequireEntry(repository_, options_);
		if (options_.url.empty()) {
			options_.url = RememberedUrlOf(repository_.Directory()).value_or("");
		}
		CheckOptions(options_);
		RequireOwnPackage(repository_, reader_, options_, previous_.data_version);
		WarnOfOtherUrl(repository_, options_, observer_);
		try {
			chain_.emplace(repository_, reader_, options_.id, previous_);
		} catch (const PublishError& error) {
			obstacle_ = WithoutEnd(error.what());
			chain_.emplace(repository_, reader_, options_.id, Entry{previous_.data_version, 0, "", {}});
		}
		versions_.emplace(repository_, reader_, options_.id, previous_, *chain_);
	}

	void Number() {
		const NextVersion next = ChooseVersion(options_, repository_);
		Published().data_version = next.data_version;
		if (next.is_begun) {
			fetch_time_ = TimeOfBegun(
			    reader_, repository_.PackagePath(options_.id, Version()), options_.id, Version(), fetch_time_);
		}
	}

	Tree Restore(const WorkDirectory& work) {
		observer_.step("unpacking", 0, 1);
		result_.is_rebuilt = !versions_->HasPackage(result_.restored);
		const std::string directory = work.Make("restored");
		const Json::Value metadata = versions_->Unpack(result_.restored, directory, work);
		format_version_ = metadata[kFormatKey].isString() ? metadata[kFormatKey].asString() : "";
		const Json::Value& newest = versions_->NewestMetadata();
		if (newest.isMember(kFormatKey) && newest[kFormatKey] != format_version_) {
			throw PublishError("Version " + std::to_string(result_.restored) + " of " + options_.id +
			                   " cannot come back: its format is \"" + format_version_ + "\", and that of version " +
			                   std::to_string(result_.withdrawn) + " is another.");
		}
		return ListTree(directory);
	}

	/** The newest full package; no value when it is missing or another key has signed it. */
	std::optional<archive::ArchiveFile> OpenOwn(const std::string& path) const {
		if (!fs::exists(path)) {
			return std::nullopt;
		}
		try {
			return reader_.Open(path, {options_.id, "", previous_.data_version});
		} catch (const ForeignPackage&) {
			return std::nullopt;
		}
	}

	/**
	 * Whether the newest version has the content already, by its full package: without its own there is something to
	 * do. A withdrawal that is given again would otherwise make all devices download what changes nothing.
	 */
	bool IsThereAlready(const Tree& tree) {
		const std::string path = repository_.PackagePath(options_.id, previous_.data_version);
		const std::optional<archive::ArchiveFile> archive = OpenOwn(path);
		if (!archive || !HoldsTree(*archive, path, tree)) {
			return false;
		}
		PublishResult& published = Published();
		published.is_unchanged = true;
		published.data_version = previous_.data_version;
		published.package_size = archive->Head().FileSize();
		published.download_link = previous_.download_link;
		if (versions_->NewestMetadata()[kRestoresKey] == result_.restored) {
			WarnOfOtherDocuments(); // which a killed withdrawal has not done
		}
		return true;
	}

	void WriteFull(const Tree& tree, ReplacingFile& package) {
		PublishResult& published = Published();
		published.download_link = LinkTo(options_.url, Repository::PackageName(options_.id, Version()));
		PackageInfo info = {options_.id, format_version_, Version()};
		info.published = fetch_time_;
		info.more[kRestoresKey] = result_.restored;
		AddNotes(options_.notes, info.more);
		published.package_size = WritePackage(tree, info, key_, options_.level, package.Fd(), package.TemporaryPath(),
		    [&](std::uint64_t files, std::uint64_t bytes) { observer_.progress(files, bytes, tree); });
		RequireSameAsBegun(repository_.PackagePath(options_.id, Version()), package.TemporaryPath(), Version());
	}

	/** A failure is a warning: the version is published without. */
	bool MakeDiffs(WithdrawalDiffs& diffs) {
		if (options_.keep_diffs == 0) {
			return false;
		}
		return WarnUnless([&] {
			if (!obstacle_.empty()) {
				throw PublishError(obstacle_);
			}
			if (result_.withdrawn != Version() - 1) {
				throw PublishError("devices have version " + std::to_string(result_.withdrawn) +
				                   ", and every step by one version needs a diff package");
			}
			diffs.Make(observer_);
		});
	}

	bool CommitDiffs(WithdrawalDiffs& diffs) {
		return WarnUnless([&] { diffs.Commit(); });
	}

	template<typename Function>
	bool WarnUnless(const Function& function) {
		try {
			function();
			return true;
		} catch (const std::exception& error) {
			observer_.warn("Version " + std::to_string(Version()) +
			               " has no diff package: " + WithoutEnd(error.what()) + ". Devices take the full package.");
			return false;
		}
	}

	Entry NewEntry(const WithdrawalDiffs& diffs, bool has_diffs) const {
		Entry entry = {Version(), fetch_time_, result_.published.download_link, {}};
		if (has_diffs) {
			entry.diff_files = diffs.Files(previous_.diff_files);
			KeepNewest(entry.diff_files, options_.keep_diffs, result_.published.package_size);
		}
		return entry;
	}

	/** The bad packages stay in place until the document names them no longer. */
	void Document(const WithdrawalDiffs& diffs, const Entry& entry) {
		if (!entry.diff_files.empty()) {
			Published().diff = diffs.Result();
			Published().diff->oldest_base = entry.diff_files.begin()->first - 1;
		}
		for (const PackageFile& file : repository_.Packages(options_.id)) {
			if (file.data_version > result_.restored && file.data_version <= result_.withdrawn &&
			    versions_->IsOfFormat(file)) {
				MarkWithdrawn(file.path, Version());
			}
		}
		repository_.RememberUrl(options_.url);
		repository_.WriteEntries(options_.db_version, {{options_.id, entry}});
		WarnOfOtherDocuments();
		try {
			repository_.Clean(options_.id);
		} catch (const std::exception& error) {
			observer_.warn(std::string("Withdrawn packages could not be removed: ") + error.what());
		}
	}

	void WarnOfOtherDocuments() const {
		for (const auto& [name, entry] : repository_.EntriesOf(options_.id)) {
			if (entry.data_version > result_.restored && entry.data_version <= result_.withdrawn &&
			    entry.data_version != Version()) {
				observer_.warn("The document " + repository_.DocumentPath(name) + " still names version " +
				               std::to_string(entry.data_version) + ", which is withdrawn; promote version " +
				               std::to_string(Version()) + " to that channel as well.");
			}
		}
	}

	PublishOptions options_;
	const PublishObserver& observer_;
	int fetch_time_;
	archive::SigningKey key_;
	PackageReader reader_;
	Repository repository_;
	Entry previous_;
	std::optional<DiffChain> chain_;
	std::optional<WithdrawalVersions> versions_;
	std::string obstacle_; // why the chain cannot be continued
	std::string format_version_;
	WithdrawResult result_;
};

} // namespace

WithdrawResult Withdraw(
    const PublishOptions& options, const std::optional<std::int64_t>& to, const PublishObserver& observer) {
	RequireRepository(options.repository);
	CheckWord("--id", options.id);
	CheckWord("--db-version", options.db_version);
	return Withdrawal(options, observer).Run(to);
}

} // namespace tarn::publisher
