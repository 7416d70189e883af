/** @file The administrator's limits of downloads. */
#ifndef PLATFORM_TARNCORE_DOWNLOAD_SETTINGS_H
#define PLATFORM_TARNCORE_DOWNLOAD_SETTINGS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace tarn::core {

constexpr const char* kDownloadSettingsPath = "/usr/tarn/etc/downloads.conf";

/** What holds for every download of any host. */
struct DownloadSettings {
	/** From the start of the client to its end, however many tries it makes. */
	std::chrono::seconds deadline = std::chrono::hours(4);
	/** Bytes per second, measured over the patience; 0 lets a download be as slow as it is. */
	std::uint64_t lowest_rate = 1000;
	/** Longer than the client takes to give up a server that cannot be connected to, which says more by itself. */
	std::chrono::seconds patience = std::chrono::minutes(2);
};

/**
 * Reads the settings file: "deadline SECONDS", "lowest_rate BYTES" and "patience SECONDS", one a line. What is absent
 * keeps its default. Lines that cannot be understood are told to syslog and skipped, and so is a whole file that others
 * than its owner may write: nobody else may take the limits away.
 */
DownloadSettings ReadDownloadSettings(const std::string& path = kDownloadSettingsPath, uid_t owner = 0);

} // namespace tarn::core

#endif
