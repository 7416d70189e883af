/**
 * @file
 * What is known about a database: what the server offers, and what is installed.
 *
 * The records convert from and to JSON. "data_version" travels as a string of digits, other numbers as JSON integers.
 * Every FromJson throws UpdateError "Invalid json object for <record>" when a member is missing or has the wrong type,
 * the standard library's "stoi" exception when a version holds no number, and whatever JsonCpp throws when it is given
 * something that is no object at all (null is treated as an empty object).
 */
#ifndef DATAUPDATE_RECORDS_H
#define DATAUPDATE_RECORDS_H

#include "dataupdate/export.h"

#include <json/value.h>

#include <map>
#include <string>

namespace tarn::dataupdate {

/** One diff package of the server. */
struct TARNDBUD_EXPORT DiffInfo {
	/** Takes the values as they are. */
	DiffInfo(const std::string& link, int bytes);

	/** Reads "download_link" and "file_size". */
	static DiffInfo FromJson(const Json::Value& json);
	/**
	 * All diff packages of one database, keyed by the data version that each produces. Takes whatever value it is
	 * given: null and a missing member are an empty map. Of two names for one number ("7", "07") the first wins.
	 */
	static std::map<int, DiffInfo> BatchFromJson(const Json::Value& json);
	/** Compares all members. */
	bool operator==(const DiffInfo& other) const;

	std::string download_link; ///< The diff package.
	int file_size;             ///< Bytes.
};

/** One installed file. */
struct TARNDBUD_EXPORT FileStatus {
	FileStatus() = default;
	/** Takes the digest as it is. */
	explicit FileStatus(const std::string& digest);

	/** Reads "sha384_digest". */
	static FileStatus FromJson(const Json::Value& json);
	/** An object with "sha384_digest". */
	static Json::Value ToJson(const FileStatus& status);
	/** All installed files by name. Throws UpdateError "Invalid json object for FileStatuses" unless it is an object.
	 */
	static std::map<std::string, FileStatus> BatchFromJson(const Json::Value& json);
	/** An empty map is written as {}. */
	static Json::Value BatchToJson(const std::map<std::string, FileStatus>& statuses);
	/** Compares the digests. */
	bool operator==(const FileStatus& other) const;
	/** The opposite. */
	bool operator!=(const FileStatus& other) const;

	std::string sha384_digest; ///< 96 lower-case hexadecimal digits, as GetSha384() gives them.
};

/** What the server offers for one database. */
struct TARNDBUD_EXPORT RemoteInfo {
	/** Takes the values as they are. */
	RemoteInfo(int version, int fetch_time, bool is_deprecated, const std::string& link);

	/** Reads the members by their names. */
	static RemoteInfo FromJson(const Json::Value& json);
	/** An object with the members. */
	static Json::Value ToJson(const RemoteInfo& info);
	/** Compares all members. */
	bool operator==(const RemoteInfo& other) const;

	int data_version;          ///< The version that the server offers.
	int last_fetch_time;       ///< Seconds since 1970.
	bool deprecated;           ///< The server is going to stop offering the database.
	std::string download_link; ///< The full package.
};

/** What is installed of one database; the content of its "version.json". */
struct TARNDBUD_EXPORT DatabaseStatus {
	/** Reads the members by their names. */
	static DatabaseStatus FromJson(const Json::Value& json);
	/** An object with the members. */
	static Json::Value ToJson(const DatabaseStatus& status);
	/** Compares all members. */
	bool operator==(const DatabaseStatus& other) const;
	/** The opposite. */
	bool operator!=(const DatabaseStatus& other) const;

	int data_version = -1;                           ///< -1: nothing is installed.
	int last_fetch_time = 0;                         ///< Seconds since 1970.
	std::map<std::string, FileStatus> file_statuses; ///< Keyed by file name.
};

} // namespace tarn::dataupdate

#endif
