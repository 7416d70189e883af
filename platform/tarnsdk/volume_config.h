/** @file The configuration that says which mounts and directories are volumes. */
#ifndef PLATFORM_TARNSDK_VOLUME_CONFIG_H
#define PLATFORM_TARNSDK_VOLUME_CONFIG_H

#include <string>
#include <vector>

namespace tarn::sdk {

constexpr const char* kVolumeConfigPath = "/usr/tarn/etc/volumes.conf";

/** The directives of the configuration file. */
struct VolumeConfig {
	std::vector<std::string> patterns;
	std::vector<std::string> directories;
	std::vector<std::string> exclusions;
};

/**
 * Reads the configuration; an absent file leaves the default pattern alone. Lines that cannot be understood are told to
 * syslog and skipped.
 *
 * @return 0, or an errno value when the file is there but cannot be read
 */
int ReadVolumeConfig(const std::string& path, VolumeConfig& config);

/** Whether a path matches one of the shell patterns; a "*" doesn't reach across "/". */
bool MatchesAny(const std::vector<std::string>& patterns, const std::string& path);

} // namespace tarn::sdk

#endif
