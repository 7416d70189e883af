/** @file The directory that the web server serves. */
#ifndef PUBLISHER_REPOSITORY_REPOSITORY_H
#define PUBLISHER_REPOSITORY_REPOSITORY_H

#include "base/unique_fd.h"
#include "publisher/repository/document.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** A file that has a package's name; its content is unknown. */
struct PackageFile {
	std::string path;
	int data_version = 0;
	bool is_diff = false;
	int withdrawal = 0; // the version that put an empty diff package in the place of an earlier one; else 0
};

/** The files with a package's name in a directory, by version, full packages first; none when it is missing. */
std::vector<PackageFile> PackagesIn(const std::string& directory, const std::string& id);

/** The file that publishers of a repository lock, relative to the repository. */
constexpr const char* kLockName = ".tarndbudpub.lock";

/**
 * Holds packages/<id>/ and the documents database_info/<version>. An object holds the directory's lock, so that
 * publishers wait for each other.
 */
class Repository {
public:
	/**
	 * @param waiting  called once when another publisher holds the lock, before waiting for it
	 * @throws PublishError
	 */
	Repository(std::string directory, const std::function<void()>& waiting);

	/** The names of the documents, in byte order, whatever they hold. */
	std::vector<std::string> DocumentNames() const;
	/** What each document says about a database, by the documents' names; throws PublishError for a damaged one. */
	std::map<std::string, Entry> EntriesOf(const std::string& id) const;
	/** The highest version that any document names for a database; no value when it was never published. */
	[[nodiscard]] std::optional<int> LastVersion(const std::string& id) const;

	/** The name of a full package, relative to the repository. */
	static std::string PackageName(const std::string& id, int version) { return NameOf(id, {"", version, false}); }
	/** The name of the diff package that leads to a version, relative to the repository. */
	static std::string DiffName(const std::string& id, int version) { return NameOf(id, {"", version, true}); }
	/** The name of the diff package that a document's link leads to; DiffName() for a link that leads elsewhere. */
	static std::string DiffName(const std::string& id, int version, const DiffFile& named);
	/** The name that a package has to have, relative to the repository; a file may be called "db_v007.tarn". */
	static std::string NameOf(const std::string& id, const PackageFile& file);
	std::string PackagePath(const std::string& id, int version) const {
		return directory_ + "/" + PackageName(id, version);
	}
	std::string DiffPath(const std::string& id, int version) const { return directory_ + "/" + DiffName(id, version); }
	/** The path of the diff package that a document's entry names for a version. */
	std::string DiffPath(const std::string& id, int version, const DiffFile& named) const;
	/** Where a full package is: in its place, or where a withdrawal has kept it; its place when it is nowhere. */
	std::string KeptPackagePath(const std::string& id, int version) const;
	std::string DocumentPath(const std::string& db_version) const {
		return directory_ + "/database_info/" + db_version;
	}
	std::string PackageDirectory(const std::string& id) const { return directory_ + "/packages/" + id; }
	const std::string& Directory() const { return directory_; }

	/** The files with a package's name that are there for a database, by version, full packages first. */
	std::vector<PackageFile> Packages(const std::string& id) const { return PackagesIn(PackageDirectory(id), id); }
	/** The databases of which there is a directory of packages, in byte order. */
	std::vector<std::string> PackagedIds() const;

	/**
	 * Removes what killed publishers left, and diff packages that no document names. Takes full packages out of service
	 * that were withdrawn and that no document names. A publisher calls it before and after its document, see
	 * MoveWithdrawn().
	 *
	 * @param spared  a version whose diff package stays
	 */
	void Clean(const std::string& id, const std::optional<int>& spared = std::nullopt) const;

	void RemoveDocumentLeftovers() const;

	/** A database's entry in a document; no value when it was never published there. */
	[[nodiscard]] std::optional<Entry> ReadEntry(const std::string& db_version, const std::string& id) const;
	/** Whether a document is there that cannot be understood as a whole; throws PublishError when it cannot be read. */
	[[nodiscard]] bool IsDamaged(const std::string& db_version) const;

	/**
	 * Puts entries of databases into a document, which keeps everything else that it holds.
	 *
	 * @param replaces_damaged  whether a document that cannot be understood is replaced; ".damaged-" and its name keep
	 *                          its text
	 */
	void WriteEntries(const std::string& db_version, const std::map<std::string, Entry>& entries,
	    bool replaces_damaged = false) const;

	/** Throws PublishError when a document with this entry would be larger than devices read. */
	void RequireRoom(const std::string& db_version, const std::string& id, const Entry& entry) const;

	/** Gives a document the entry that another one has, with all that it says; see Document::CopyEntry(). */
	void CopyEntry(const std::string& from, const std::string& to, const std::string& id) const;

	/** Notes at which URL the repository is served, for a document that is lost. */
	void RememberUrl(const std::string& url) const;

private:
	void RetireWithdrawn(const std::string& id) const;
	void RemoveUnnamedDiffs(const std::string& id, const std::optional<int>& spared) const;

	std::string directory_;
	UniqueFd lock_;
};

/** The link to a file of a repository that is served at a URL. */
std::string LinkTo(const std::string& url, const std::string& name);

/** What a repository was served as when something was published last; no value when none was noted. Takes no lock. */
[[nodiscard]] std::optional<std::string> RememberedUrlOf(const std::string& directory);

} // namespace tarn::publisher

#endif
