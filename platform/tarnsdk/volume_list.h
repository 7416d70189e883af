/** @file Which volumes there are and in what state, from the configuration and the mounted file systems. */
#ifndef PLATFORM_TARNSDK_VOLUME_LIST_H
#define PLATFORM_TARNSDK_VOLUME_LIST_H

#include "base/handle.h"
#include "base/settings_lines.h"

#include <tarnsdk/volume.h>

#include <libmount/libmount.h>

#include <map>
#include <string>
#include <vector>

namespace tarn::sdk {

struct VolumeConfig {
	std::vector<std::string> patterns;
	std::vector<std::string> directories;
	std::vector<std::string> exclusions;
};

/**
 * Reads the configuration; an absent file leaves the default pattern alone. Lines that cannot be understood are told to
 * syslog and skipped. Returns 0, or an errno value when the file is there but cannot be read.
 */
[[nodiscard]] int ReadVolumeConfig(const std::string& path, VolumeConfig& config);

/** A mounted file system, as the mount table describes it. */
struct Mount {
	/** Whether it stores data on this machine: no pseudo or network file system and no swap area. */
	bool is_storage = false;
	bool is_read_only = false;
};

class MountTable {
public:
	/** Reads a table; without one that can be read IsRead() is false and errno tells why. */
	explicit MountTable(const std::string& path);

	bool IsRead() const { return table_ != nullptr; }

	/** Mounts by their paths; of several at the same path the last one, which hides the others. */
	std::map<std::string, Mount> ByPath() const;

	/** Whether the mount that holds a directory is read-only. */
	bool IsReadOnlyAt(const std::string& directory) const;

private:
	Handle<libmnt_table, mnt_unref_table> table_;
};

struct VolumeSources {
	std::string config = kVolumeSettingsPath;
	std::string mount_table = "/proc/self/mountinfo";
};

/** A volume's record, and why its file system doesn't answer: an errno value, 0 when it does. */
struct Volume {
	TARNMountVolInfo record;
	int error;
};

/**
 * The volumes in ascending order of their paths; returns 0, or an errno value when the configuration or the mounts
 * cannot be read.
 */
[[nodiscard]] int ListVolumes(const VolumeSources& sources, std::vector<Volume>& volumes);

/**
 * Whether a volume may host service data: not when the configuration excludes it or cannot be read, nor when others
 * than root could write where the data lies, which is told to syslog with the place and the reason.
 */
[[nodiscard]] bool MayHostServiceData(const std::string& config, const std::string& path);

} // namespace tarn::sdk

#endif
