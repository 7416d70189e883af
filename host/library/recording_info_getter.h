/** @file An InfoGetter that keeps the host's record of all installed files. */
#ifndef HOST_LIBRARY_RECORDING_INFO_GETTER_H
#define HOST_LIBRARY_RECORDING_INFO_GETTER_H

#include "host/library/file_changes.h"
#include "host/library/noting_info_getter.h"
#include "host/library/services.h"

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tarn::ctl {

/** The operation for which the library asks. */
enum class Change { kUpdate, kFix, kForced };

/**
 * Every operation asks for the installed state or the server's description once it has its locks, and records the new
 * state before it gives them back: these are the moments at which the record of all files is read, put right when it is
 * lost, and carried on. A record that cannot be kept is told to the system log and made again by the next operation.
 */
class RecordingInfoGetter : public NotingInfoGetter {
public:
	/** Arguments as for NotingInfoGetter. */
	RecordingInfoGetter(
	    const Services& services, std::function<void(const std::string& id)> check_volume, Change change);

	dataupdate::RemoteInfo GetRemoteInfo(const std::string& id) const override;
	/**
	 * For a fix: "nothing is installed" when the record of all files tells what the library's does not: a bad file that
	 * the last update left alone, or an unknown one. The library then reinstalls.
	 */
	dataupdate::DatabaseStatus GetDatabaseStatus(const std::string& id) const override;
	/**
	 * The old record goes first and the new one comes last. A process that is killed in between leaves none, never a
	 * wrong one.
	 */
	void SetDatabaseStatus(const std::string& id, const dataupdate::DatabaseStatus& status) const override;

private:
	bool Prepare(const std::string& id, const dataupdate::DatabaseStatus& status) const;
	void PrepareForced(const std::string& id) const;
	InstalledFiles MakeRecord(const std::string& id, const dataupdate::DatabaseStatus& status) const;
	InstalledFiles RecordOfUpdate(const std::string& id, const dataupdate::DatabaseStatus& status) const;
	std::string InstallPrefix(const std::string& id) const;

	const Services& services_;
	std::function<void(const std::string& id)> check_volume_;
	Change change_;
	mutable std::optional<InstalledFiles> before_;
	mutable std::map<std::string, FileIdentity> identities_;
};

} // namespace tarn::ctl

#endif
