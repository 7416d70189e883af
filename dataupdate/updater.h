/** @file Bringing one database to the server's version, checking its files and repairing it. */
#ifndef DATAUPDATE_UPDATER_H
#define DATAUPDATE_UPDATER_H

#include "dataupdate/export.h"
#include "dataupdate/file_list.h"
#include "dataupdate/installation.h"
#include "dataupdate/records.h"

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/**
 * Whether every listed file exists below root and has its recorded digest. Stops at the first that doesn't, which it
 * logs at LOG_ERR. An absolute file name stands for itself; an empty list passes. Throws Boost's filesystem error when
 * a file's status cannot be had for another reason than that it doesn't exist.
 */
[[nodiscard]] TARNDBUD_EXPORT bool CheckStatus(
    const std::map<std::string, FileStatus>& statuses, const std::string& root);

/** Like CheckStatus(), to the end: the names of all files that do not exist or do not match, each of them logged. */
[[nodiscard]] TARNDBUD_EXPORT std::vector<std::string> FindBadFiles(
    const std::map<std::string, FileStatus>& statuses, const std::string& root);

/** Recorded files in whatever form a host keeps them. The functions are called by several threads at a time. */
struct FileListing {
	std::size_t count = 0;                                    ///< Of the files.
	std::function<std::string(std::size_t number)> name_of;   ///< In the order in which files are to be looked at.
	std::function<std::string(std::size_t number)> digest_of; ///< As GetSha384() gives it.
};

/** The files of a list with digests as texts; the list has to live as long. */
[[nodiscard]] TARNDBUD_EXPORT FileListing ListingOf(const FileList& files);

/** CheckStatus() of a listing. */
[[nodiscard]] TARNDBUD_EXPORT bool CheckListing(const FileListing& files, const std::string& root);

/** FindBadFiles() of a listing. */
[[nodiscard]] TARNDBUD_EXPORT std::vector<std::string> FindBadIn(const FileListing& files, const std::string& root);

/**
 * Bounds the threads that take the digests of several files at once, for the whole process. By default there is one for
 * each processor that the process may use; they block all signals and end with the function that started them.
 *
 * @param count  1 takes all digests in the calling thread; 0 is the default; more than four for each processor count as
 *               four
 */
TARNDBUD_EXPORT void LimitDigestThreads(unsigned count);

/** The digests of those of the files that exist below root, keyed by the name given; see CheckStatus(). */
[[nodiscard]] TARNDBUD_EXPORT std::map<std::string, FileStatus> CalculateStatus(
    std::set<std::string> files, const std::string& root);

/** The same names with the digests as texts; without a text those that do not exist. Gives the given list up. */
[[nodiscard]] TARNDBUD_EXPORT FileList CalculateDigests(FileList files, const std::string& root);

/** What an update did. */
struct UpdateResult {
	int data_version = -1;   ///< Of the new installed state, which is to be recorded.
	int last_fetch_time = 0; ///< Of the new installed state.
	/**
	 * What was replaced, created or deleted, with the digests of those that exist: absolute names after the full
	 * package, else relative to the directory.
	 */
	FileList files;
	bool is_full = false; ///< Whether the full package was installed, so that there are no other files.
};

/** What a host knows of an installed file: its digest by its path below the install directory; none when unknown. */
using KnownDigest = std::function<std::optional<std::string>(const std::string& name)>;

/** What a host has a say in while an update runs; each may be empty. */
struct UpdateAdvice {
	/** Tells the digests of files that the status does not list. */
	KnownDigest known_digest;
	/**
	 * Called before the full package is downloaded, be it in the place of diff packages that failed. What it throws
	 * ends the update, with the installed files untouched.
	 */
	std::function<void()> before_full_package;
	/** What checking hooks are told to be installed; none: what the status says. */
	std::optional<int> installed_version = std::nullopt;
};

/** Runs an update of one database; whether one is needed is the caller's decision. */
class TARNDBUD_EXPORT Updater {
public:
	virtual ~Updater();

	/**
	 * Prepares the new version from diff packages or, when that fails, from the full package, runs the hooks around its
	 * installation, and brings it to the disk. Why the diff packages did not do is only logged.
	 *
	 * @param id             database id
	 * @param status         what is installed
	 * @param remote         what the server offers
	 * @param diffs          the server's diff packages, keyed by the version that each produces
	 * @param volume         current volume; temporary data goes below it
	 * @param installPrefix  install directory
	 * @param rootDirectory  path whose file system must keep 5 % free
	 * @return the new installed state, to be recorded by the caller, who also holds the database's update lock
	 *
	 * Throws UpdateError, Boost's filesystem error when a new file's status cannot be had, and JsonCpp's exceptions
	 * about a diff package's description, after which no full package is tried. The installed files are untouched when
	 * preparing failed. After "Fail to diff update: " or "Fail to full update: " they may be a mixture, and after a
	 * later failure they are the new ones that nothing records yet. An update from version -1 without diff packages
	 * makes both good, and so does class Update, which remembers. The hook after the change runs only when the change
	 * succeeded.
	 */
	[[nodiscard]] virtual DatabaseStatus Update(const std::string& id, const DatabaseStatus& status,
	    const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs, const std::string& volume,
	    const std::string& installPrefix, const std::string& rootDirectory) const;

	/**
	 * Does the same, and tells more: the new state does not name what diff packages deleted, so a host that keeps an
	 * account of all files could not tell it from what vanished otherwise. Throws what Update() throws.
	 *
	 * @param id             database id
	 * @param status         what is installed
	 * @param remote         what the server offers
	 * @param diffs          the server's diff packages, keyed by the version that each produces
	 * @param volume         current volume; temporary data goes below it
	 * @param installPrefix  install directory
	 * @param rootDirectory  path whose file system must keep 5 % free
	 * @param advice         what the host knows and allows
	 * @return the new installed state, to be recorded by the caller, and what was replaced
	 */
	[[nodiscard]] UpdateResult UpdateAndTell(const std::string& id, const DatabaseStatus& status,
	    const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs, const std::string& volume,
	    const std::string& installPrefix, const std::string& rootDirectory, const UpdateAdvice& advice = {}) const;
};

/**
 * The version that a killed process was about to install, where all that it had prepared is still whole: ready in the
 * temporary area, or in its place. None when no replacement is unfinished, when the system was started since, so that
 * what was prepared need not be on the disk, and when the volume or the install directory is another one now.
 *
 * @param id              database id
 * @param volume          current volume, with the temporary area
 * @param install_prefix  install directory
 */
[[nodiscard]] TARNDBUD_EXPORT std::optional<int> FindPreparedReplacement(
    const std::string& id, const std::string& volume, const std::string& install_prefix);

/**
 * The version that an unfinished replacement was bringing, whether or not it can still be finished. None when no
 * replacement is unfinished, or when it left nothing that tells.
 */
[[nodiscard]] TARNDBUD_EXPORT std::optional<int> FindUnfinishedVersion(const std::string& id);

/**
 * Finishes that replacement, between the hooks and under the readers' lock, without asking the server. The files come
 * from packages whose signatures the killed process had checked. Hold the database's update lock; record the result.
 * Throws UpdateError "What was prepared for <id> is no longer whole", and what ApplyUpdate() of the strategies throws.
 */
[[nodiscard]] TARNDBUD_EXPORT UpdateResult FinishReplacement(
    const std::string& id, const std::string& volume, const std::string& install_prefix);

// The slots of this class are fixed without a destructor among them; never delete a derived object through it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/** Repairs one database by reinstalling the server's full package. */
class TARNDBUD_EXPORT Fixer {
public:
	/** Arguments as for Updater::Update(). */
	Fixer(const std::string& id, const RemoteInfo& remote, const std::string& volume, const std::string& installPrefix,
	    const std::string& rootDirectory);

	/** Whether nothing was ever installed or a recorded file is missing or changed. */
	[[nodiscard]] virtual bool IsFixNeeded(const DatabaseStatus& status) const;
	/** Reinstalls, with hooks and errors as in Updater::Update(); returns the new installed state. */
	[[nodiscard]] virtual DatabaseStatus Fix() const;
	/** Does the same, and tells the new state in little memory. */
	[[nodiscard]] InstalledRecord FixAndTell() const;

private:
	std::string id_;
	RemoteInfo remote_;
	std::string volume_;
	std::string install_prefix_;
	std::string root_directory_;
};

#pragma GCC diagnostic pop

} // namespace tarn::dataupdate

#endif
