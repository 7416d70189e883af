/**
 * @file
 * The ways of turning the installed copy of a database into another version.
 *
 * A strategy lives for one update: it is constructed with its inputs, PrepareUpdate() does everything that can fail
 * without touching the installed files (download, signature, unpacking, free space), ApplyUpdate() replaces them while
 * it holds "/run/data_update/using_<id>.lock" exclusively, waiting up to 600 seconds for readers, and the destructor
 * removes the temporary data. The caller holds the database's update lock, and syncs the file system before it records
 * the new version: readers need not wait for the disk. One thread uses a strategy.
 *
 * A strategy knows nothing of killed runs: class Update remembers an unfinished replacement and installs the full
 * package after it. A caller that uses strategies by itself has to remember for itself, because patches would make a
 * third version of a mixture.
 *
 * Three strings always travel together: the temporary base below which "@tmp/data_update" lies (the volume), the
 * install directory, and the path whose file system is measured. Failures are UpdateError.
 */
#ifndef DATAUPDATE_STRATEGY_H
#define DATAUPDATE_STRATEGY_H

#include "dataupdate/export.h"
#include "dataupdate/file_list.h"
#include "dataupdate/records.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace tarn::dataupdate {

class EarlyDigests;
class Patcher;
class PlanWriter;

/** What an update does with one file. */
struct TARNDBUD_EXPORT ModifyInfo {
	static constexpr std::int32_t kOverride = 1; ///< Copy the source over the target.
	static constexpr std::int32_t kDelete = 2;   ///< Remove the target.

	std::int32_t operation = 0; ///< kOverride or kDelete.
	std::string source;         ///< The new content, in the temporary area.
};

/** Learns of a file by its name below the install directory and where it is prepared; empty when it is deleted. */
using VisitFile = std::function<void(const std::string& name, const std::string& source)>;

/** The interface, with operations that do nothing, and what all strategies share. */
class TARNDBUD_EXPORT BaseStrategy {
public:
	BaseStrategy() = default;
	BaseStrategy(const BaseStrategy&) = delete;
	BaseStrategy& operator=(const BaseStrategy&) = delete;
	virtual ~BaseStrategy();

	/** Does all that can fail while the installed files stay as they are. Call it once. */
	virtual void PrepareUpdate();
	/** Replaces the installed files. Call it once, after PrepareUpdate(). */
	virtual void ApplyUpdate();
	/** The changed files, for the hooks and the digests. */
	virtual std::set<std::string> GetModifiedFiles() const;
	/** Bytes that the update frees in the install directory; negative when the new version is larger. */
	virtual std::int64_t GetDeltaSize() const;

protected:
	/** Whether the file's SHA-384 digest is exactly this text. The file is opened for reading and writing. */
	bool _CheckDigest(const std::string& path, const std::string& digest) const;
	/** Whether more than 5 % of the file system's capacity is available once so many more bytes are free. */
	bool _IsSpaceEnough(const std::string& path, std::int64_t delta) const;
	/**
	 * Checks a package's signature and unpacks it. Throws "Failed to extract package at tarnarchive_init",
	 * "tarnarchive_open <package> failed, ret: <n>" with nothing unpacked, "tarnarchive_extract <package> failed,
	 * ret: <n>".
	 */
	void _ExtractTarballTo(const std::string& tarball, const std::string& destination) const;
};

/** Replaces everything by the content of one package. Changed files are absolute target paths. */
class TARNDBUD_EXPORT FullStrategy : public BaseStrategy {
public:
	/** Keeps copies of the arguments; does nothing yet. */
	FullStrategy(const std::string& id, const RemoteInfo& remote, const std::string& volume,
	    const std::string& installPrefix, const std::string& rootDirectory);
	~FullStrategy() override;

	/**
	 * Downloads the package and unpacks it into a directory that is emptied right before. Throws IOUtils::Download's
	 * and _ExtractTarballTo's errors, "path not in base", "Fail to calculate modify info: <why>" and "Disk space is too
	 * low". Threads go on taking the digests of large files, as many as LimitDigestThreads() allows; they block all
	 * signals, and end with DigestsBegun().
	 */
	void PrepareUpdate() override;
	/**
	 * Empties the install directory and puts the unpacked files into it, which stay in the temporary area as well: on
	 * one file system under two names. Readers wait for the renaming of the entries at the top only, wherever entries
	 * can be moved from the temporary area to the install directory. Then removes the package, which nobody needs any
	 * more. Throws "Fail to full update: <why>", after which the installed copy may be partial until the next update or
	 * fix.
	 */
	void ApplyUpdate() override;
	std::set<std::string> GetModifiedFiles() const override;
	std::int64_t GetDeltaSize() const override;
	/** GetModifiedFiles() in little memory. */
	[[nodiscard]] FileList ListModifiedFiles() const;
	/** Visits all files of the new version in the order of their names. */
	void VisitPrepared(const VisitFile& visit) const;
	/** Holds these files under their names between PrepareUpdate() and ApplyUpdate(). */
	[[nodiscard]] const std::string& PreparedTree() const;
	/** True: what cannot be installed has not been prepared. */
	[[nodiscard]] bool IsInstallable() const;
	/** What PrepareUpdate() has begun of the new files' digests. Lives on without the strategy. */
	[[nodiscard]] std::shared_ptr<EarlyDigests> DigestsBegun() const { return early_digests_; }

private:
	void _CalModifyInfo();
	/** Makes the new tree ready in the temporary area; false where it could not be moved from there. */
	bool _Stage() const;
	void _AddTo(PlanWriter& plan, const std::string& staged) const;
	void _PlaceFiles(const std::string& root, void (*place)(const std::string&, const std::string&)) const;
	/** Where the new version of a file goes. */
	[[nodiscard]] std::string _Target(std::size_t at) const;

	std::string id_;
	RemoteInfo remote_;
	std::string temp_base_;
	std::string install_directory_;
	std::string space_check_path_;
	std::string package_path_;
	std::string unpack_directory_;
	FileList
	    unpacked_; // What comes from elsewhere than from the same name below the unpacked tree has that as its text.
	bool is_staged_ = false;
	std::shared_ptr<EarlyDigests> early_digests_;
};

/**
 * Applies the chain of packages that lead from the installed version to the server's, one per version, to copies of the
 * files that they change. Changed files are relative to the install directory. A patch refuses a file that it was not
 * made for; a script is refused where the recorded digest of the file tells that it was changed, and otherwise trusts
 * the database to hold what the last update left.
 */
class TARNDBUD_EXPORT DiffStrategy : public BaseStrategy {
public:
	/** Keeps copies of the arguments; does nothing yet. */
	DiffStrategy(const std::string& id, const DatabaseStatus& status, const RemoteInfo& remote,
	    const std::map<int, DiffInfo>& diffs, const std::string& volume, const std::string& installPrefix,
	    const std::string& rootDirectory);
	/** Removes the whole shared temporary area, other databases' prepared data included. */
	~DiffStrategy() override;

	/**
	 * Downloads, unpacks and applies one package after the other, in directories that are emptied right before. Throws
	 * "No sufficient diff patched" when a version's package is missing or the installed version is not older,
	 * CheckConflicts' "In the way of <file>: <path>", IOUtils::Download's and _ExtractTarballTo's errors, an error that
	 * names the member, file or statement which cannot be applied, and "Disk space is too low". JsonCpp's exceptions
	 * about a package's description pass through. A package's size is not compared with the announced one: its
	 * signature says more. Threads go on as after FullStrategy::PrepareUpdate().
	 */
	void PrepareUpdate() override;
	/**
	 * Removes and replaces the changed files; directories that become empty stay. Where more than 128 files change,
	 * directories in which they lie are made ready in the temporary area first, and exchanged whole: readers wait for
	 * few renames, wherever entries can be moved from there. Throws "Fail to diff update: <why>", after which the
	 * installed copy may be a mixture: the next update has to be a full one, as class Update makes it.
	 */
	void ApplyUpdate() override;
	std::set<std::string> GetModifiedFiles() const override;
	/** The old sizes are those of the changed files' names as seen from the working directory of the process. */
	std::int64_t GetDeltaSize() const override;
	/** GetModifiedFiles() in little memory. */
	[[nodiscard]] FileList ListModifiedFiles() const;
	/**
	 * Visits the files that change in the order of their names. Throws UpdateError "Not a regular file: <working copy>"
	 * when a package created something else.
	 */
	void VisitPrepared(const VisitFile& visit) const;
	/** Empty: files lie under other names, and unchanged ones not at all, until ApplyUpdate(). */
	[[nodiscard]] std::string PreparedTree() const;
	/** Whether VisitPrepared() does not throw; otherwise ApplyUpdate() fails before it replaces a file. */
	[[nodiscard]] bool IsInstallable() const;
	/** Has a function tell the digests of files that the status does not list; to be called before PrepareUpdate(). */
	void TakeDigestsFrom(std::function<std::optional<std::string>(const std::string& name)> known);
	/** What PrepareUpdate() has begun of the new files' digests. Lives on without the strategy. */
	[[nodiscard]] std::shared_ptr<EarlyDigests> DigestsBegun() const { return early_digests_; }

private:
	bool _IsDiffUpdateAvailable() const;
	void _DoDiffUpdateTo(int version);
	const std::map<std::string, ModifyInfo>& _ModifyInfos() const;

	std::string id_;
	DatabaseStatus status_;
	RemoteInfo remote_;
	std::map<int, DiffInfo> diffs_;
	std::string temp_base_;
	std::string install_directory_;
	std::string space_check_path_;
	std::unique_ptr<Patcher> patcher_;
	std::map<int, std::string> package_files_;
	std::map<int, std::string> delta_directories_;
	std::string accumulation_directory_;
	std::function<std::optional<std::string>(const std::string& name)> known_digest_;
	std::shared_ptr<EarlyDigests> early_digests_;
};

/**
 * Unpacks the package of a given link over the install directory: no version comparison, no change set, no space
 * check. Files that the package lacks stay.
 */
class TARNDBUD_EXPORT ForceInstallByLink : public BaseStrategy {
public:
	/** Keeps copies of the arguments; does nothing yet. */
	ForceInstallByLink(const std::string& id, const std::string& link, const std::string& volume,
	    const std::string& installPrefix, const std::string& rootDirectory);
	/** Removes the whole shared temporary area, other databases' prepared data included. */
	~ForceInstallByLink() override;

	/** Downloads the package. Throws IOUtils::Download's errors and "Fail to create dir <path>". */
	void PrepareUpdate() override;
	/** Throws "Fail to force install: <why>", after which the installed copy may be a mixture until the next fix. */
	void ApplyUpdate() override;

private:
	std::string id_;
	std::string link_;
	std::string temp_base_;
	std::string install_directory_;
	std::string root_directory_;
	std::string package_path_;
};

} // namespace tarn::dataupdate

#endif
