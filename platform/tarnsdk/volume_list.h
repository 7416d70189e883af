/** @file Which volumes there are, and in what state. */
#ifndef PLATFORM_TARNSDK_VOLUME_LIST_H
#define PLATFORM_TARNSDK_VOLUME_LIST_H

#include "platform/tarnsdk/mount_table.h"
#include "platform/tarnsdk/volume_config.h"

#include <tarnsdk/volume.h>

#include <string>
#include <vector>

namespace tarn::sdk {

/** Where volumes are learnt from. */
struct VolumeSources {
	std::string config = kVolumeConfigPath;
	std::string mount_table = kMountTablePath;
};

/** A volume's record, and why its file system doesn't answer: an errno value, 0 when it does. */
struct Volume {
	TARNMountVolInfo record;
	int error;
};

/**
 * Finds the volumes in ascending order of their paths.
 *
 * @return 0, or an errno value when the configuration or the mounts cannot be read
 */
int ListVolumes(const VolumeSources& sources, std::vector<Volume>& volumes);

/**
 * Whether a volume may host service data: not when the configuration excludes it or cannot be read, nor when others
 * than root could write where the data lies, which is told to syslog with the place and the reason.
 */
bool MayHostServiceData(const std::string& config, const std::string& path);

} // namespace tarn::sdk

#endif
