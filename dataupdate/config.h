/** @file Sectioned settings in two JSON files. */
#ifndef DATAUPDATE_CONFIG_H
#define DATAUPDATE_CONFIG_H

#include "dataupdate/export.h"
#include "dataupdate/utils.h"

#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/**
 * Settings addressed by section and key, kept in a shipped defaults file, which is only read, and an override file,
 * which is read first and alone is written. Nothing is cached, so that a change by another process is seen at once.
 *
 * A value is a string, a boolean or an unsigned integer. An override that is missing or has the wrong type yields to
 * the default; a wrong default is an error. Reads take no lock. Writes hold "/run/data_update/config.lock" and wait up
 * to 600 seconds for it. Several threads may use one object after Init().
 */
class TARNDBUD_EXPORT Config {
public:
	/** Shares the file operations; reads nothing. */
	explicit Config(std::shared_ptr<IOUtils> io);
	virtual ~Config();

	/** Sets the two paths; reads nothing. */
	virtual void Init(const std::string& defaultsPath, const std::string& overridePath);

	/**
	 * The value of a key. Throw UpdateError "section-key: '<section>'-'<key>' not found", "Bad type conversion", or the
	 * error of reading the defaults file. JsonCpp's exceptions pass through when a file holds no object.
	 */
	virtual std::string Get(const std::string& section, const std::string& key) const;
	/** Integers from 0 to 4294967295; see Get() for errors. */
	virtual unsigned long GetAsUInt64(const std::string& section, const std::string& key) const;
	/** true or false; see Get() for errors. */
	virtual bool GetAsBool(const std::string& section, const std::string& key) const;

	/**
	 * Stores a value in the override file, other keys keeping theirs; a missing or unparsable file is replaced.
	 * Throw UpdateError "Fail to set config <section>:<key>", or FileLock's error, and nothing is then written.
	 */
	virtual void Set(const std::string& section, const std::string& key, const std::string& value) const;
	/** Likewise, as a string. */
	virtual void Set(const std::string& section, const std::string& key, const char* value) const;
	/** Likewise, as a number. */
	virtual void Set(const std::string& section, const std::string& key, unsigned long value) const;
	/** Likewise, as true or false. */
	virtual void Set(const std::string& section, const std::string& key, bool value) const;

	/**
	 * The sorted section names of the override file, or of the defaults file when the override cannot be read. They
	 * are not merged: an override replaces the whole list, and can so take sections away.
	 */
	virtual std::vector<std::string> GetSections() const;

	/** What Get() does, for std::string, unsigned long and bool. */
	template<typename T>
	T __Get(const std::string& section, const std::string& key) const;
	/** What Set() does, for the same types. */
	template<typename T>
	void __Set(const std::string& section, const std::string& key, const T& value) const;
	/** A value as one of these types. Throws UpdateError "Bad type conversion". */
	template<typename T>
	T GetAs(const Json::Value& value) const;

private:
	std::string defaults_path_;
	std::string override_path_;
	std::shared_ptr<IOUtils> io_;
};

} // namespace tarn::dataupdate

#endif
