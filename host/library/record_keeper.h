/** @file What the host records of its runs and of installed files. */
#ifndef HOST_LIBRARY_RECORD_KEEPER_H
#define HOST_LIBRARY_RECORD_KEEPER_H

#include "dataupdate/updater.h"
#include "host/library/failure.h"
#include "host/library/file_changes.h"
#include "host/library/services.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace tarn::ctl {

struct RunRecord {
	std::string operation; ///< "update", "import", "fix", "force-install"
	std::int64_t time = 0; ///< When it ended, in seconds since 1970.
	int exit_status = 0;
	double seconds = 0;
	std::uint64_t downloaded_bytes = 0;
	std::uint64_t downloaded_total = 0;       ///< By all operations since the first record.
	std::string failure;                      ///< FailureName(); empty after a success.
	std::optional<std::int64_t> last_success; ///< When an operation last succeeded, this one or an earlier one.
};

/** The last operation that ended as a failure; later successes leave it. */
struct FailureRecord {
	std::string operation;
	std::int64_t time = 0; ///< In seconds since 1970.
	int exit_status = 0;
	std::string sentence;
};

/** No value when there is none, or none that can be read. */
std::optional<FailureRecord> ReadFailureRecord(const std::string& id);

/** A record that cannot be written is told to the system log only. */
void RecordFailure(const std::string& id, const char* operation, const Failure& failure);

/** Where a database's record lies. */
std::string RunRecordPath(const std::string& id);

/**
 * Does the work and records how it went, success or failure; work that ends because the program was asked to end is not
 * recorded. A record that cannot be written is told to the system log only: the work has been done.
 *
 * @param work  returns how it ended, which is recorded and returned
 */
ExitCode RunRecorded(
    const Services& services, const std::string& id, const char* operation, const std::function<ExitCode()>& work);

/** No value when there is none, or none that can be read. */
std::optional<RunRecord> ReadRunRecord(const std::string& id);

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

	/** @param listed  all files */
	void KeepFixed(dataupdate::InstalledRecord listed);
	void KeepForced(const dataupdate::InstalledRecord& listed);
	/**
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
	template<typename Make>
	void Write(const Make& make) const;

	const Services& services_;
	std::string id_;
	/** Gives up the memory of a record that can be read again. */
	void Forget();

	std::optional<InstalledFiles> before_;
	bool is_on_disk_ = false;      // whether what is prepared is the record as it lies there
	bool can_be_recalled_ = false; // whether it was given up until it is needed
	dataupdate::FileList identities_;
};

} // namespace tarn::ctl

#endif
