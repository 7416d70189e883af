/** @file What is wrong with the settings: values that cannot be used, and names that no program knows. */
#ifndef HOST_LIBRARY_SETTINGS_H
#define HOST_LIBRARY_SETTINGS_H

#include "dataupdate/utils.h"

#include <string>
#include <vector>

namespace tarn::ctl {

/**
 * Throws CommandError when an override file is there that cannot be read, or holds a value of the wrong type. The
 * library takes its defaults instead, so that a slip of the pen would end all updates without a word, and the next
 * setting to be written would replace the file.
 */
void RequireUsableSettings(const dataupdate::IOUtils& io);

/** A setting as it lies in its file. */
struct PlacedSetting {
	std::string name;
	unsigned int line = 0;
};

/** What a settings file holds that is not known: sections of data_update.conf, and settings. */
struct UnknownSetting {
	std::string path;
	PlacedSetting setting;
	bool is_section = false;
	std::vector<std::string> known; ///< What it could be meant for.
};

/**
 * Reads what an administrator writes: "data_update.conf", "databases.conf", "downloads.conf" and "volumes.conf". A file
 * that is missing, or cannot be read or understood, has none: whoever obeys the file complains.
 */
std::vector<UnknownSetting> FindUnknownSettings();

/** "PATH:3: there is no setting "deadlin", so it has no effect; did you mean "deadline"?" */
std::string Describe(const UnknownSetting& unknown);

/** Writes each of them to the system log as a warning. */
void LogUnknownSettings();

} // namespace tarn::ctl

#endif
