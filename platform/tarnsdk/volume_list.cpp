#include "platform/tarnsdk/volume_list.h"

#include "base/volume_safety.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

namespace tarn::sdk {
namespace {

/** Reads the first entry of a directory: a failed device can still have its counters in memory. 0 or an errno value. */
int ProbeDirectory(const std::string& path) {
	struct CloseStream {
		void operator()(DIR* stream) const { closedir(stream); }
	};
	const std::unique_ptr<DIR, CloseStream> stream(opendir(path.c_str()));
	if (!stream) {
		return errno;
	}
	errno = 0;
	// NOLINTNEXTLINE(concurrency-mt-unsafe): a stream of our own
	return readdir(stream.get()) != nullptr ? 0 : errno;
}

/** Multiplies without wrapping round: file systems in user space may claim anything. */
std::uint64_t Bytes(std::uint64_t blocks, std::uint64_t block_size) {
	std::uint64_t bytes = 0;
	return __builtin_mul_overflow(blocks, block_size, &bytes) ? UINT64_MAX : bytes;
}

Volume Examine(const std::string& path, bool read_only) {
	Volume volume = {};
	path.copy(volume.record.mount_path, sizeof volume.record.mount_path - 1);
	volume.record.flags = TARN_VOLUME_FLAG_DATA;
	struct statvfs state = {};
	volume.error = statvfs(path.c_str(), &state) == 0 ? ProbeDirectory(path) : errno;
	if (volume.error != 0) {
		syslog(LOG_WARNING, "tarnsdk: volume '%s' does not answer: %s", path.c_str(), std::strerror(volume.error));
		return volume;
	}
	volume.record.free_bytes = Bytes(state.f_bavail, state.f_frsize);
	volume.record.total_bytes = Bytes(state.f_blocks, state.f_frsize);
	volume.record.healthy = 1;
	volume.record.writable = read_only || (state.f_flag & ST_RDONLY) != 0 ? 0 : 1;
	return volume;
}

bool IsDirectory(const std::string& path) {
	struct stat info = {};
	return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

} // namespace

int ListVolumes(const VolumeSources& sources, std::vector<Volume>& volumes) {
	VolumeConfig config;
	if (const int error = ReadVolumeConfig(sources.config, config); error != 0) {
		syslog(LOG_ERR, "tarnsdk: cannot read '%s': %s", sources.config.c_str(), std::strerror(error));
		return error;
	}
	const MountTable table(sources.mount_table);
	if (!table.IsRead()) {
		const int error = errno != 0 ? errno : EIO;
		syslog(LOG_ERR, "tarnsdk: cannot read '%s': %s", sources.mount_table.c_str(), std::strerror(error));
		return error;
	}
	std::map<std::string, bool> read_only_by_path;
	for (const auto& [path, mount] : table.ByPath()) {
		if (mount.is_storage && path.size() < TARN_VOLUME_PATH_SIZE && MatchesAny(config.patterns, path)) {
			read_only_by_path[path] = mount.is_read_only;
		}
	}
	for (const std::string& directory : config.directories) {
		if (IsDirectory(directory)) {
			read_only_by_path[directory] = table.IsReadOnlyAt(directory);
		} else {
			syslog(LOG_WARNING, "tarnsdk: %s: '%s' is no directory", sources.config.c_str(), directory.c_str());
		}
	}
	volumes.clear();
	for (const auto& [path, read_only] : read_only_by_path) {
		volumes.push_back(Examine(path, read_only));
	}
	return 0;
}

bool MayHostServiceData(const std::string& config_path, const std::string& path) {
	VolumeConfig config;
	if (ReadVolumeConfig(config_path, config) != 0 || MatchesAny(config.exclusions, path)) {
		return false;
	}
	const std::optional<UnsafePlace> unsafe = FindUnsafePlaceOnVolume(path);
	if (unsafe) {
		syslog(LOG_WARNING, "tarnsdk: volume '%s' is refused: '%s' %s", path.c_str(), unsafe->path.c_str(),
		    unsafe->reason.c_str());
	}
	return !unsafe;
}

} // namespace tarn::sdk
