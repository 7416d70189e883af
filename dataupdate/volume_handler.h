/** @file Choosing the storage volume that holds the databases, and following it. */
#ifndef DATAUPDATE_VOLUME_HANDLER_H
#define DATAUPDATE_VOLUME_HANDLER_H

#include "dataupdate/export.h"
#include "dataupdate/service_config.h"

#include <memory>
#include <string>

namespace tarn::dataupdate {

/**
 * Settles and moves the current volume, "cur_volume" of the service configuration; empty means that no volume is in
 * use and that databases on a volume are not updated. The event operations log the failures of their own steps and do
 * not throw, except where reading the current volume, or the write named at each, fails.
 *
 * What else a host has to do around them:
 * - No operation takes a lock. Hold the lock on any update and those on the readers of every database
 * ("update_any.lock" and "using_<id>.lock" in /run/data_update, as FileLock) while databases move, and the first while
 * a volume is adopted.
 * - Records of what is installed are not touched. After a full update or a fix they name files by absolute paths, which
 *   lead to the old volume until the host rewrites them (InfoGetter::GetDatabaseStatus, SetDatabaseStatus); until then
 *   CheckStatus and Fixer find these files missing, or look at what is left of them on the old volume. The next update
 *   writes new ones.
 * - Whether a move succeeded is seen by the current volume, which is empty after a failure: the files are then on the
 * old volume, or parts of them on both. A volume that is adopted may lack databases that count as installed.
 */
class TARNDBUD_EXPORT VolumeHandler {
public:
	/** Shares the configuration; touches nothing yet. */
	explicit VolumeHandler(std::shared_ptr<ServiceConfig> service_config);
	virtual ~VolumeHandler();

	/** At service start: adopts the first suitable volume when none is in use. */
	virtual void InitVolume() const;
	/**
	 * Before a volume goes away: gives it up if it is the current one, and moves the databases to another suitable
	 * volume, which becomes the current one. Throws when giving up cannot be recorded.
	 */
	virtual void UnmountVolumeEvent(const std::string& volume) const;
	/** After a volume was mounted: adopts it if none is in use and it is suitable. Throws when that can't be recorded.
	 */
	virtual void MountVolumeEvent(const std::string& volume) const;
	/**
	 * Mount path of the first suitable volume but the excluded one. Throws UpdateError "Failed to enum all volumes:
	 * <code>", "Cannot find suitable volume.", and std::runtime_error when the reserves overflow.
	 */
	[[nodiscard]] virtual std::string FindSuitableVolume(std::string exclude) const;
	/** "<volume>/@database/autoupdate". */
	virtual std::string GetMainDirPath(const std::string& volume) const;
	/** Creates a directory with all parents. Throws UpdateError "Failed to create '<path>': <why>". */
	virtual void CreateDirectories(const std::string& path) const;
	/**
	 * Whether a volume may hold the databases: it holds data, is allowed for services, has so many bytes free, answers
	 * and is writable.
	 *
	 * @param volumeInfo     a TARNMountVolInfo
	 * @param requiredBytes  bytes; negative stands for the sum of all databases' reserves, and std::runtime_error is
	 *                       thrown when that overflows
	 */
	[[nodiscard]] virtual bool IsSuitable(const void* volumeInfo, long requiredBytes) const;

private:
	long _TotalReserve() const;
	void _MoveDatabases(const std::string& from, const std::string& to) const;

	std::shared_ptr<ServiceConfig> service_config_;
};

} // namespace tarn::dataupdate

#endif
