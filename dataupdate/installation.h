/**
 * @file
 * What is installed of a database, and whether a replacement of its files was left unfinished.
 *
 * The record, "version.json", is written last. The mark of an unfinished replacement, "replacing" beside it, is on the
 * disk before the first installed file changes, and is removed when the new state has been recorded. A process that
 * finds the mark knows that the files may be a mixture of two versions which no record describes, and that patches
 * would make a third version of them.
 *
 * Class Update sets, heeds and removes the mark. Updater, Fixer and the strategies don't by themselves: a host that
 * calls them without Update gets no file that it did not ask for, and can set the mark itself.
 *
 * No function takes a lock: hold the database's update lock (UpdateLockPath()) while you write, and the lock of its
 * readers while you decide what its files are. Calls for different databases may come from different threads.
 */
#ifndef DATAUPDATE_INSTALLATION_H
#define DATAUPDATE_INSTALLATION_H

#include "dataupdate/export.h"
#include "dataupdate/file_list.h"
#include "dataupdate/records.h"
#include "dataupdate/utils.h"

#include <optional>
#include <string>

namespace tarn::dataupdate {

/** A DatabaseStatus in little memory: for many files it takes a third, and is read and written without JSON values. */
struct TARNDBUD_EXPORT InstalledRecord {
	InstalledRecord() = default;
	/** Takes the values as they are. */
	InstalledRecord(int version, int fetch_time, FileList list);
	/** The same as a status says. Not explicit: either form of a record will do where this one is asked for. */
	InstalledRecord(const DatabaseStatus& status); // NOLINT(google-explicit-constructor)

	/** The same as a status; the record is given up, and freed while the status is made. */
	[[nodiscard]] static DatabaseStatus TakeStatus(InstalledRecord record);

	int data_version = -1;   ///< -1: nothing is installed.
	int last_fetch_time = 0; ///< Seconds since 1970.
	FileList files;          ///< Digests by file name, in order. A file without one is not written.
};

/**
 * Reads the record piece by piece. No value when there is none, or none in the form in which it is written here:
 * ReadRecord() then tells what is wrong, if anything is. Throws nothing but std::bad_alloc.
 */
[[nodiscard]] TARNDBUD_EXPORT std::optional<InstalledRecord> ReadLargeRecord(const std::string& id);

/**
 * Writes what WriteRecord() writes, without holding it in memory. Throws "Fail to create parent folder: <path>", and
 * "Fail to write: <path>", also when not all of it could be written.
 */
TARNDBUD_EXPORT void WriteLargeRecord(const std::string& id, const InstalledRecord& record);

/** The same for a status. */
TARNDBUD_EXPORT void WriteLargeRecord(const std::string& id, const DatabaseStatus& status);

/**
 * Reads the record. Throws the errors of IOUtils::ReadJson(), with code kFileNotExist when nothing was ever installed,
 * and those of DatabaseStatus::FromJson().
 */
[[nodiscard]] TARNDBUD_EXPORT DatabaseStatus ReadRecord(const IOUtils& io, const std::string& id);

/** Writes the record. Throws the errors of IOUtils::WriteJson(), after which the record may be cut off. */
TARNDBUD_EXPORT void WriteRecord(const IOUtils& io, const std::string& id, const DatabaseStatus& status);

/**
 * Sets the mark durably; a mark that is set already is synced again. Throws UpdateError "Fail to mark replacement:
 * <path>: <why>"; the mark may then be set all the same.
 */
TARNDBUD_EXPORT void SetReplacementMark(const std::string& id);

/**
 * Sets the mark as durably, for a host that moves a database. Returns false when the mark is set already. Throws as
 * SetReplacementMark() does, and the mark is then not set.
 */
TARNDBUD_EXPORT bool MarkUnfinished(const std::string& id);

/**
 * Whether the mark contradicts the record beside it: the next update has to install the full package. False without a
 * record, because then nothing is known to be installed, or the host keeps its records elsewhere. A file whose status
 * cannot be had is treated as existing.
 */
[[nodiscard]] TARNDBUD_EXPORT bool IsReplacementMarked(const std::string& id);

/**
 * Whether the files may be of two versions, to be asked by a reader while it holds the lock. True for a mark without a
 * record as well, unlike IsReplacementMarked(): the very first installation may have been killed. A mark whose status
 * cannot be had is treated as set.
 */
[[nodiscard]] TARNDBUD_EXPORT bool MayBeAMixture(const std::string& id);

/**
 * Brings the record to the disk and removes the mark. A failure is logged at LOG_ERR and leaves the mark: the next
 * update then installs the full package.
 */
TARNDBUD_EXPORT void ClearReplacementMark(const std::string& id) noexcept;

} // namespace tarn::dataupdate

#endif
