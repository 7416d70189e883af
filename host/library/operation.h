/** @file One operation of the library on one database, and what it did. */
#ifndef HOST_LIBRARY_OPERATION_H
#define HOST_LIBRARY_OPERATION_H

#include "dataupdate/update.h"
#include "host/library/budget.h"
#include "host/library/installed_package.h"
#include "host/library/record_keeper.h"
#include "host/library/services.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarn::ctl {

/** What an operation found and did. */
struct Outcome {
	int Version() const { return installed.value_or(before); }

	int before = -1; ///< The recorded version when the operation had its locks; -1 for none.
	/** Where the recorded version was installed when the settings name another directory; before is -1 then. */
	std::optional<std::string> old_place;
	bool was_unfinished = false;  ///< Whether its files were half replaced, so that it is treated as not installed.
	int offered = -1;             ///< The server's version; -1 when the server was not asked.
	bool goes_back = false;       ///< Whether an older version than the recorded one is to be installed.
	std::optional<int> installed; ///< The version that was installed and recorded; none when nothing was changed.
	/** The latest version that was there, at least in part, when an older one was installed that nobody asked for. */
	std::optional<int> back_from;
	std::optional<int> held_at;     ///< "fix": the version that was to be installed instead of the server's.
	std::optional<Refusal> refusal; ///< Why nothing newer was installed though it is offered; none for any other end.
	std::uint64_t downloaded_bytes = 0; ///< By an update, packages only.
	/** Size of the full package in whose place diff packages were installed, for a terminal; none when not known. */
	std::optional<std::uint64_t> full_package_bytes;
};

/** What happens to a version that a check of this machine refused before. */
enum class RefusedVersion {
	kLeave, ///< The refusal is thrown again.
	kRetry, ///< The check is asked again.
};

/** Learns of each database whose replacement was finished, and by which version. */
using NoteFinished = std::function<void(const std::string& id, int version)>;

/**
 * Finishes the replacements that were killed, of all configured databases, from what they had prepared, where that is
 * whole and no hold is in the way: a database is then of one version again even if the server does not answer. To be
 * called before every operation on whichever database, because an update by diff packages and a forced installation
 * clear the temporary area of all.
 *
 * A failure is logged, and what was prepared is given up for lost: a reader that keeps another database must not hold
 * up this one for ever. Throws CommandError with kLocked when the database that the operation is for can be finished
 * later, and what the library throws when the program was asked to end.
 *
 * @param asked_for  id of the database that the operation is for
 */
void FinishPrepared(const Services& services, const std::string& asked_for, const NoteFinished& note);

/** Installs the server's version if it is newer, not held back and within the budget. Throws the library's errors. */
[[nodiscard]] Outcome UpdateDatabase(const Services& services, const std::string& id, const Budget& budget = {},
    RefusedVersion refused = RefusedVersion::kLeave);
/**
 * The same with what a kit offers in the server's place.
 *
 * @param goes_back  whether an older version than the recorded one is installed as well, then by its full package
 *
 * Throws CommandError as well: an unfinished replacement is never finished by an older version unless it goes back.
 */
[[nodiscard]] Outcome ImportDatabase(
    const Services& services, const std::string& id, bool goes_back, RefusedVersion refused = RefusedVersion::kLeave);
/**
 * Reinstalls the server's version if anything is missing, changed, unknown or half replaced. A database that is held
 * gets its own version again, by a link that is made from the server's.
 */
[[nodiscard]] Outcome FixDatabase(const Services& services, const std::string& id);
/**
 * Installs a version over what is there.
 *
 * @param version  as dataupdate::Update::ForceInstall() takes it
 * @param target   the version that this stands for; no package of another version gets in, because a forced package's
 *                 file name says nothing about the version
 * @param even_held  whether a hold is no obstacle
 */
[[nodiscard]] Outcome ForceDatabase(
    const Services& services, const std::string& id, int version, int target, bool even_held = false);

/** The version of what a killed run had ready for this database where it is installed now, if no hold is in the way. */
[[nodiscard]] std::optional<int> FindPrepared(const Services& services, const std::string& id);

/** What to tell when a package cannot be downloaded whose link was made by Retarget(). */
[[nodiscard]] CommandError MadeLinkError(const std::string& message, int offered, int target);

enum class Change { kUpdate, kFix, kForced, kFinish };

/** What becomes of a version that is older than the recorded one. */
enum class Older { kAsTheLibraryDoes, kRefused, kInstalled };

/**
 * Everything that is known of one operation while it lasts. The library asks for the installed state or for the
 * server's description once it has its locks, and records the new state before it gives them back: these are the
 * moments at which the volume is looked at, and the record of all files is read, mended and carried on.
 */
class Operation {
public:
	using CheckVolume = std::function<void()>;

	/**
	 * @param check_volume  called under the locks and before anything is written; what it throws ends the operation
	 * @param expected      the only version that may be installed; none: any
	 */
	Operation(const Services& services, const std::string& id, Change change, CheckVolume check_volume,
	    std::optional<int> expected = std::nullopt);

	/** For an update; none limits nothing. */
	void Limit(const Budget& budget) { budget_ = budget; }

	/** What the library is called through, and what it calls; usable as long as this object lives. */
	dataupdate::Update Front();
	std::shared_ptr<dataupdate::InfoGetter> Info();
	std::shared_ptr<dataupdate::Updater> Updater();

	/** Before the library is called. */
	void Treat(Older older) { older_ = older; }
	void Treat(RefusedVersion refused) { refused_ = refused; }

	OpenedPackages& Packages() { return packages_; }
	const Outcome& Result() const { return outcome_; }
	/** Links to the full package that was not needed; empty when it was. */
	const std::string& SparedLink() const { return spared_link_; }

private:
	class OwnInfo;
	class OwnUpdater;

	dataupdate::RemoteInfo AskServer();
	/** What takes the server's place for a replacement that is only to be finished. */
	dataupdate::RemoteInfo AskPlan() const;
	/** Throws Refusal when the offered version is held back. */
	void RequireNoHold() const;
	/** What a fix has to install: the server's version, or under a hold the installed one. */
	dataupdate::RemoteInfo ForFix(dataupdate::RemoteInfo remote);
	/** Installs a new version unless it was refused before, and remembers a refusal. */
	void Install(const dataupdate::DatabaseStatus& status, const dataupdate::RemoteInfo& remote, const Diffs& diffs,
	    const std::string& volume, const std::string& install_prefix, const std::string& root_directory);
	void RequireFullPackage(const std::string& link, std::uint64_t spent) const;
	dataupdate::DatabaseStatus ReadStatus();
	/** Notes where the database is to be and, if it is elsewhere, was. */
	dataupdate::InstalledRecord ReadHere();
	void LookBack();
	/** Notes and logs that an older version was installed, which only an unfinished or damaged one gives way to. */
	void TellWayBack();
	void RecordStatus(dataupdate::InstalledRecord record);

	const Services& services_;
	std::string id_;
	Change change_;
	CheckVolume check_volume_;
	Budget budget_;
	std::string spared_link_; // of the full package in whose place diff packages were installed
	Older older_ = Older::kAsTheLibraryDoes;
	RecordKeeper record_;
	OpenedPackages packages_;
	std::string install_prefix_; // where the files are put
	int latest_ = -1;            // of the versions whose files may be there
	dataupdate::UpdateResult update_;
	Outcome outcome_;
	RefusedVersion refused_ = RefusedVersion::kLeave;
};

} // namespace tarn::ctl

#endif
