#ifndef PUBLISHER_REPOSITORY_H
#define PUBLISHER_REPOSITORY_H

#include "base/unique_fd.h"
#include "publisher/package_files.h"

#include <json/json.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** What the document says about one diff package. */
struct DiffFile {
	std::string download_link;
	int file_size = 0;
};

/** What the document says about one version of a database. */
struct Entry {
	int data_version = 0;
	int last_fetch_time = 0;
	std::string download_link;
	std::map<int, DiffFile> diff_files; // by the version that each leads to
};

/**
 * The directory that the web server serves: packages/<id>/ and the documents database_info/<version>. While an object
 * lives it holds the directory's lock, so that publishers follow each other.
 */
class Repository {
public:
	/**
	 * @param waiting  called once when another publisher holds the lock, before waiting for it
	 * @throws PublishError
	 */
	Repository(std::string directory, const std::function<void()>& waiting);

	/** The highest version that any document names for a database; none when it was never published. */
	std::optional<int> LastVersion(const std::string& id) const;

	static std::string PackageName(const std::string& id, int data_version);
	std::string PackagePath(const std::string& id, int data_version) const;
	std::string DocumentPath(const std::string& db_version) const;

	static std::string DiffName(const std::string& id, int data_version);
	std::string DiffPath(const std::string& id, int data_version) const;
	const std::string& Directory() const { return directory_; }

	/** The files with a package's name that are there for a database, by version, full packages first. */
	std::vector<PackageFile> Packages(const std::string& id) const;
	/** The databases of which there is a directory of packages, in byte order. */
	std::vector<std::string> PackagedIds() const;

	/**
	 * Removes what killed publishers left where this one will write, and diff packages that no document names.
	 *
	 * @param spared  a version whose diff package stays all the same
	 */
	void Clean(const std::string& id, const std::optional<int>& spared = std::nullopt) const;

	/** The same for documents alone. */
	void RemoveDocumentLeftovers() const;

	/** A database's entry in a document; none when it was never published there. */
	std::optional<Entry> ReadEntry(const std::string& db_version, const std::string& id) const;
	/** Whether a document is there that cannot be understood as a whole; throws PublishError when it cannot be read. */
	bool IsDamaged(const std::string& db_version) const;

	/**
	 * Puts a database's entry into a document, keeping all else that it holds: other databases, flags of deprecation,
	 * members unknown here.
	 */
	void WriteEntry(const std::string& db_version, const std::string& id, const Entry& entry) const;
	/**
	 * The same for several databases at once.
	 *
	 * @param replaces_damaged  whether a document that cannot be understood begins anew, its text kept in ".damaged-"
	 *                          and its name
	 */
	void WriteEntries(
	    const std::string& db_version, const std::map<std::string, Entry>& entries, bool replaces_damaged) const;

	/** Notes what the repository was served as when something was published, for a document that is lost. */
	void RememberUrl(const std::string& url) const;
	std::optional<std::string> RememberedUrl() const;

private:
	Json::Value ReadDocument(const std::string& path) const;
	/** Calls back with the path of every document and what it says about a database. */
	void ForEachEntry(
	    const std::string& id, const std::function<void(const std::string&, const Json::Value&)>& callback) const;
	void RemoveUnnamedDiffs(const std::string& id, const std::optional<int>& spared) const;
	void KeepDamaged(const std::string& db_version) const;
	std::string PackageDirectory(const std::string& id) const { return directory_ + "/packages/" + id; }

	std::string directory_;
	UniqueFd lock_;
};

} // namespace tarn::publisher

#endif
