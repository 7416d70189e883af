/**
 * @file
 * Typed views over the two configuration file pairs.
 *
 * Each pair is a defaults file below "/usr/share/data_update" and an override file below "/usr/tarn/etc/data_update":
 * "data_update.conf" holds the service's settings, "databases.conf" one section for each database.
 */
#ifndef DATAUPDATE_SERVICE_CONFIG_H
#define DATAUPDATE_SERVICE_CONFIG_H

#include "dataupdate/config.h"
#include "dataupdate/export.h"

#include <memory>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/** The section of "data_update.conf" that holds the service's settings. */
constexpr char kServiceSection[] = "config";

/** The settings of one database, with the current volume as it was when the view was made. */
class TARNDBUD_EXPORT DatabaseConfig {
public:
	/** Points config to the "databases.conf" pair. */
	DatabaseConfig(const std::string& id, const std::string& volume, std::shared_ptr<Config> config);
	virtual ~DatabaseConfig();

	/** "auto_update": whether scheduled updates include the database; true when absent or of the wrong type. */
	virtual bool GetScheduled() const;
	/** Writes "auto_update" as Config::Set() does. */
	virtual void SetScheduled(bool scheduled) const;
	/** "format_version": the data format that this system can use. */
	virtual std::string GetFormatVersion() const;
	/**
	 * The install directory, by "install_dest": "<volume>/@database/autoupdate/<id>" for "%VOLUME%", "/var/db/<id>"
	 * for "%ROOTFS%". Throws UpdateError "Invalid value '<value>' for '%s/@database/autoupdate' field" for any other
	 * value; the volume is not checked.
	 */
	virtual std::string GetInstallPrefix() const;
	/** The root of the file system that holds the install directory; same errors as GetInstallPrefix(). */
	virtual std::string GetRootDirectory() const;
	/** "min_rsv_space_inbytes": bytes to stay free on a volume beyond the database; 0 when absent or wrong. */
	virtual unsigned long GetMinReservedSpaceInbytes() const;

private:
	std::string id_;
	std::string volume_;
	std::shared_ptr<Config> config_;
};

/** The service's settings, and the way to the databases'. Errors are those of Config. */
class TARNDBUD_EXPORT ServiceConfig {
public:
	/** Points config to the "data_update.conf" pair. */
	explicit ServiceConfig(std::shared_ptr<Config> config);
	virtual ~ServiceConfig();

	/** The sections of the "databases.conf" pair, sorted; an override file replaces the whole list. */
	virtual std::vector<std::string> GetDatabaseIDs() const;
	/** A view of one database with the current volume; whether the id is known is not checked. */
	virtual std::shared_ptr<DatabaseConfig> GetDatabaseConfig(const std::string& id) const;
	/** Throws UpdateError "Project <id> not supported" when the id is not listed. */
	virtual void CheckSupported(const std::string& id) const;
	/** "download_scheme": "http" or "https". */
	virtual std::string GetDownloadScheme() const;
	/** "db_netloc": the update server's host, with a port where needed. */
	virtual std::string GetDBInfoDomainName() const;
	/** "db_ver": the version segment of the server document's path. */
	virtual std::string GetDBInfoVersion() const;
	/** "cur_volume": mount path of the volume that holds the databases; empty when none is in use. */
	virtual std::string GetCurVolume() const;
	/** Writes "cur_volume" as Config::Set() does. */
	virtual void SetCurVolume(const std::string& volume) const;

private:
	std::shared_ptr<Config> config_;
};

} // namespace tarn::dataupdate

#endif
