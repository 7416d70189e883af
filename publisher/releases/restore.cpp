#include "publisher/releases/restore.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/signed_packages.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/repository.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <utility>

namespace tarn::publisher {

namespace {

/** The steps of Restore(). */
class Restoration {
public:
	Restoration(const RestoreOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      reader_(options.keys),
	      repository_(options.repository, observer.waiting),
	      url_(options.url.empty() ? RememberedUrl() : options.url),
	      is_damaged_(repository_.IsDamaged(options.db_version)) {}

	RestoreResult Run() {
		result_.document = repository_.DocumentPath(options_.db_version);
		std::map<std::string, Entry> entries;
		for (const std::string& id : Ids()) {
			try {
				CheckWord("--id", id);
				if (!IsNamed(id)) {
					entries[id] = Rebuild(id);
				}
			} catch (const PublishError& error) {
				result_.failures.push_back(id + " is not restored: " + WithoutEnd(error.what()) + ".");
			}
		}
		if (!entries.empty()) {
			repository_.RemoveDocumentLeftovers();
			repository_.RememberUrl(url_);
			repository_.WriteEntries(options_.db_version, entries, true);
			result_.is_written = true;
		}
		return std::move(result_);
	}

private:
	std::string RememberedUrl() const {
		if (auto url = RememberedUrlOf(repository_.Directory())) {
			CheckUrl(*url);
			return *url;
		}
		throw UsageError("--url is needed: " + options_.repository +
		                 " does not tell where devices reach it, since an older release published it.");
	}

	std::vector<std::string> Ids() const {
		std::vector<std::string> ids = options_.ids.empty() ? repository_.PackagedIds() : options_.ids;
		if (ids.empty()) {
			throw PublishError("There are no packages in " + options_.repository + ".");
		}
		return ids;
	}

	/** The version that the document names; no value when the document is damaged or does not name the database. */
	std::optional<int> NamedVersion(const std::string& id) const {
		return is_damaged_ ? std::nullopt : VersionIn(options_.db_version, id);
	}

	std::optional<int> VersionIn(const std::string& document, const std::string& id) const {
		try {
			const std::optional<Entry> entry = repository_.ReadEntry(document, id);
			return entry ? std::optional(entry->data_version) : std::nullopt;
		} catch (const DamagedDocument&) {
			return std::nullopt;
		}
	}

	/** The highest version that any document names, as far as they can be read. */
	int NamedAnywhere(const std::string& id) const {
		try {
			return repository_.LastVersion(id).value_or(-1);
		} catch (const DamagedDocument&) {
			return -1;
		}
	}

	/** Whether the document's entry can be read, is as new as the packages, and so stays. */
	bool IsNamed(const std::string& id) {
		const std::optional<int> named = NamedVersion(id);
		if (!named || options_.force) {
			return false;
		}
		const std::vector<PackageFile> files = repository_.Packages(id);
		if (!files.empty() && files.back().data_version > std::max(*named, NamedAnywhere(id))) {
			throw PublishError(result_.document + " names its version " + std::to_string(*named) + ", though " +
			                   files.back().path + " is there; --force replaces the entry");
		}
		result_.databases.push_back({id, true, *named, 0, 0, {}});
		return true;
	}

	Entry Rebuild(const std::string& id) {
		if (repository_.Packages(id).empty()) {
			throw PublishError("there are no packages of it in " + options_.repository);
		}
		const SignedPackages packages =
		    ReadSignedPackages(repository_, reader_, id, options_.format_version, observer_);
		if (packages.full.empty()) {
			throw PublishError("none of its full packages can be used; --old-key names further keys that signed");
		}
		RequireOneFormat(packages);
		const auto& [version, newest] = Newest(packages);
		Entry entry = {version, newest.published, LinkTo(url_, Repository::PackageName(id, version)), {}};
		if (!newest.says_when) {
			observer_.warn(newest.path + " does not say when it was published; the time of the file is used.");
		}
		entry.diff_files = Chain(version, packages);
		WarnOfHigher(id, version, packages.highest);
		JudgeChannels(id, version);
		WarnOfUnreached(version, entry, packages);
		KeepNewest(entry.diff_files, options_.keep_diffs, newest.size);
		const auto& diffs = entry.diff_files;
		const int oldest_base = diffs.empty() ? version : diffs.begin()->first - 1;
		result_.databases.push_back({id, false, version, diffs.size(), oldest_base, entry.download_link});
		return entry;
	}

	/** The full package that the document is to name. */
	const std::pair<const int, SignedPackage>& Newest(const SignedPackages& packages) const {
		auto after = packages.full.end();
		if (options_.data_version) {
			after = packages.full.upper_bound(static_cast<int>(*options_.data_version));
		}
		if (after == packages.full.begin()) {
			throw PublishError("none of its full packages that can be used is of version " +
			                   std::to_string(*options_.data_version) + " or below");
		}
		return *std::prev(after);
	}

	static void RequireOneFormat(const SignedPackages& packages) {
		std::set<std::string> formats;
		for (const auto& [version, package] : packages.full) {
			formats.insert(package.format_version);
		}
		if (formats.size() > 1) {
			throw PublishError("its packages are of the formats \"" + *formats.begin() + "\" and \"" +
			                   *formats.rbegin() + "\"; --format-version says which one the document is for");
		}
	}

	/**
	 * All diff packages that lead to a version without a gap. An empty one is right only below the withdrawal that made
	 * it, and is then the one to take.
	 */
	std::map<int, DiffFile> Chain(int newest, const SignedPackages& packages) const {
		std::map<int, DiffFile> files;
		int version = newest;
		for (auto diff = packages.diffs.find(version); diff != packages.diffs.end();
		     diff = packages.diffs.find(--version)) {
			const auto above = diff->second.upper_bound(newest);
			if (above == diff->second.begin()) {
				break;
			}
			const SignedPackage& package = std::prev(above)->second;
			const std::string name = package.path.substr(repository_.Directory().size() + 1);
			files[version] = {LinkTo(url_, name), static_cast<int>(package.size)};
		}
		return files;
	}

	/** Devices that have a version which cannot be named take higher versions only. */
	void WarnOfHigher(const std::string& id, int version, int highest_packaged) const {
		const int highest = std::max(highest_packaged, NamedVersion(id).value_or(version));
		if (highest > version && !options_.data_version) {
			observer_.warn("Devices may have version " + std::to_string(highest) + " of " + id +
			               ", of which there is no full package that can be named: the document names version " +
			               std::to_string(version) + ". Publish with --data-version " +
			               std::to_string(std::int64_t{highest} + 1) + " next.");
		}
	}

	/** A version that another document names may have been on trial there. */
	void JudgeChannels(const std::string& id, int version) const {
		if (options_.data_version) {
			return;
		}
		for (const std::string& name : repository_.DocumentNames()) {
			const bool is_other = name != options_.db_version && !repository_.IsDamaged(name);
			if (is_other && VersionIn(name, id) == std::optional(version)) {
				JudgeChannel(name, id, version);
			}
		}
	}

	void JudgeChannel(const std::string& name, const std::string& id, int version) const {
		const std::optional<int> named = NamedVersion(id);
		if (named && *named < version) {
			throw PublishError("version " + std::to_string(version) + " is what " + name +
			                   " names, and would be for all devices; --data-version " + std::to_string(*named) +
			                   " keeps the version that " + result_.document + " names");
		}
		observer_.warn("Version " + std::to_string(version) + " of " + id + " is also what " + name +
		               " names. If it was on trial there, run it again with --force and --data-version.");
	}

	void WarnOfUnreached(int version, const Entry& entry, const SignedPackages& packages) const {
		if (options_.keep_diffs && entry.diff_files.size() >= static_cast<std::size_t>(*options_.keep_diffs)) {
			return; // What is older is no longer kept.
		}
		for (const auto& [diff_version, candidates] : packages.diffs) {
			if (diff_version <= version && entry.diff_files.count(diff_version) == 0) {
				observer_.warn("Left out: from the package " + candidates.begin()->second.path +
				               " no chain leads to version " + std::to_string(version) + ".");
			}
		}
	}

	const RestoreOptions& options_;
	const PublishObserver& observer_;
	PackageReader reader_;
	Repository repository_;
	std::string url_;
	bool is_damaged_;
	RestoreResult result_;
};

} // namespace

RestoreResult Restore(const RestoreOptions& options, const PublishObserver& observer) {
	CheckWord("--db-version", options.db_version);
	CheckKeptDiffs(options.keep_diffs);
	CheckDataVersion(options.data_version);
	if (!options.url.empty()) {
		CheckUrl(options.url);
	}
	RequireRepository(options.repository);
	return Restoration(options, observer).Run();
}

} // namespace tarn::publisher
