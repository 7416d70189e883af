/** @file What the host records of its runs and of installed files. */
#ifndef HOST_LIBRARY_RECORD_KEEPER_H
#define HOST_LIBRARY_RECORD_KEEPER_H

#include "dataupdate/updater.h"
#include "host/library/failure.h"
#include "host/library/file_changes.h"
#include "host/library/services.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace tarn::ctl {

struct RunRecord {
	std::string operation; ///< "update", "fix", "force-install"
	std::int64_t time = 0; ///< When it ended, in seconds since 1970.
	int exit_status = 0;
	double seconds = 0;
	std::uint64_t downloaded_bytes = 0;
};

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
	void PrepareUpdate(const dataupdate::DatabaseStatus& status);
	/** Before a version is unpacked over whatever is recorded and lies there. */
	void PrepareForced();
	/** Whether files are bad that the library's record does not name, or are unknown; each is logged. */
	[[nodiscard]] bool FindsDamage(const dataupdate::DatabaseStatus& status);

	void KeepFixed(const dataupdate::DatabaseStatus& status);
	void KeepForced(const dataupdate::DatabaseStatus& status);
	/** @param result  tells which files changed */
	void KeepUpdated(const dataupdate::DatabaseStatus& status, const dataupdate::UpdateResult& result);

private:
	std::string InstallPrefix() const;
	/** Whether the files can be looked at and are of one version. */
	bool IsWhole() const;
	/** Reads the record or makes it again; returns whether it was made again. */
	bool Prepare(const dataupdate::DatabaseStatus& status);
	template<typename Make>
	void Write(const Make& make) const;

	const Services& services_;
	std::string id_;
	std::optional<InstalledFiles> before_;
	std::map<std::string, FileIdentity> identities_;
};

} // namespace tarn::ctl

#endif
