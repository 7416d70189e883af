/** @file How the record of all installed files is kept while an operation changes them. */
#ifndef HOST_LIBRARY_RECORD_KEEPER_H
#define HOST_LIBRARY_RECORD_KEEPER_H

#include "dataupdate/updater.h"
#include "host/library/file_changes.h"
#include "host/library/services.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace tarn::ctl {

/**
 * Made for one operation, and used under its locks: reads the record before files change, makes a lost record again,
 * and writes the record of the new state. A record that cannot be kept is logged, and the next operation makes it
 * again.
 */
class RecordKeeper {
public:
	RecordKeeper(const Services& services, std::string id) : services_(services), id_(std::move(id)) {}

	/**
	 * Makes the record again if it is missing, is of another version than the installed one, or is older than the
	 * library's record and disagrees with it. Reads no more than the record's beginning and end otherwise.
	 */
	void Mend(int installed_version);
	/** Before an update changes files. */
	void PrepareUpdate();
	/** The recorded digest of a file; none when it is not known. */
	[[nodiscard]] std::optional<std::string> KnownDigest(const std::string& name);
	/** Before a version is unpacked over whatever is recorded, which may be unreadable, and lies there. */
	void PrepareForced(const std::function<dataupdate::InstalledRecord()>& read_installed);
	/** Whether files are bad, whichever of the records names them, or are unknown; those that are found are logged. */
	[[nodiscard]] bool FindsDamage(const dataupdate::InstalledRecord& listed);
	/** To be called before the record is dropped, for what is carried on from it. */
	void RecallBefore();
	/** Recalls what was recorded before a replacement that another process began, and this one finishes. */
	void RecallUnfinished();

	void KeepForced(const dataupdate::InstalledRecord& listed);
	/**
	 * After an update or a fix.
	 *
	 * @param listed   what was replaced or created, and without digests what was deleted
	 * @param is_full  whether these are all files
	 */
	void KeepUpdated(dataupdate::InstalledRecord listed, bool is_full);

private:
	std::string InstallPrefix() const;
	/** Whether the files can be looked at and are of one version. */
	bool IsWhole() const;
	/** Reads the record or makes it again; returns whether it was made again. */
	bool Prepare(const dataupdate::InstalledRecord& listed);
	/** Gives up the memory of a record that can be read again. */
	void Forget();
	template<typename Make>
	void Write(const Make& make) const;

	const Services& services_;
	std::string id_;
	std::optional<InstalledFiles> before_;
	bool is_on_disk_ = false;      // whether what is prepared is the record as it lies there
	bool can_be_recalled_ = false; // whether it was given up until it is needed
	dataupdate::FileList identities_;
};

} // namespace tarn::ctl

#endif
