#include "platform/tarnsdk/volume_list.h"

#include "base/volume_safety.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

namespace tarn::sdk {

namespace {

constexpr const char* kDefaultPattern = "/volume*";

std::string WithoutTrailingSlashes(std::string path) {
	while (path.size() > 1 && path.back() == '/') {
		path.pop_back();
	}
	return path;
}

const char* Take(const Directive& directive, VolumeConfig& config) {
	const std::map<std::string, std::vector<std::string>*> lists = {
	    {"pattern", &config.patterns}, {"directory", &config.directories}, {"exclude", &config.exclusions}};
	const auto list = lists.find(directive.name);
	if (list == lists.end()) {
		return "unknown directive";
	}
	const std::string path = WithoutTrailingSlashes(directive.value);
	if (path.empty()) {
		return "the path is missing";
	}
	if (path[0] != '/') {
		return "the path is not absolute";
	}
	if (path.size() >= TARN_VOLUME_PATH_SIZE) {
		return "the path is too long";
	}
	list->second->push_back(path);
	return nullptr;
}

bool HasReadOnlyOption(const char* options) {
	return options != nullptr && mnt_optstr_get_option(options, "ro", nullptr, nullptr) == 0;
}

/** Read-only is either the mount, or the file system below it, which falls back to it after errors. */
bool IsReadOnly(libmnt_fs* fs) {
	return HasReadOnlyOption(mnt_fs_get_vfs_options(fs)) || HasReadOnlyOption(mnt_fs_get_fs_options(fs));
}

/** Reads the first entry of a directory: a failed device can still have its counters in memory. 0 or an errno value. */
int ProbeDirectory(const std::string& path) {
	const Handle<DIR, closedir> stream(opendir(path.c_str()));
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

/** Whether a path matches one of the shell patterns; a "*" doesn't reach across "/". */
bool MatchesAny(const std::vector<std::string>& patterns, const std::string& path) {
	return std::any_of(patterns.begin(), patterns.end(),
	    [&](const std::string& pattern) { return fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME) == 0; });
}

} // namespace

int ReadVolumeConfig(const std::string& path, VolumeConfig& config) {
	config = VolumeConfig();
	const int error =
	    ReadSettingsLines(path, "tarnsdk", [&](const Directive& directive) { return Take(directive, config); });
	if (error != 0 && error != ENOENT && error != ENOTDIR) {
		return error;
	}
	if (config.patterns.empty()) {
		config.patterns.emplace_back(kDefaultPattern);
	}
	return 0;
}

MountTable::MountTable(const std::string& path) : table_(mnt_new_table_from_file(path.c_str())) {}

std::map<std::string, Mount> MountTable::ByPath() const {
	const Handle<libmnt_iter, mnt_free_iter> iterator(mnt_new_iter(MNT_ITER_FORWARD));
	std::map<std::string, Mount> mounts;
	libmnt_fs* fs = nullptr;
	while (iterator && mnt_table_next_fs(table_.get(), iterator.get(), &fs) == 0) {
		if (const char* target = mnt_fs_get_target(fs); target != nullptr) {
			const bool elsewhere =
			    mnt_fs_is_pseudofs(fs) != 0 || mnt_fs_is_netfs(fs) != 0 || mnt_fs_is_swaparea(fs) != 0;
			mounts[target] = {!elsewhere, IsReadOnly(fs)};
		}
	}
	return mounts;
}

bool MountTable::IsReadOnlyAt(const std::string& directory) const {
	std::error_code error;
	const std::filesystem::path real = std::filesystem::canonical(directory, error);
	if (error) {
		return false;
	}
	libmnt_fs* const fs = mnt_table_find_mountpoint(table_.get(), real.c_str(), MNT_ITER_BACKWARD);
	return fs != nullptr && IsReadOnly(fs);
}

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
		std::error_code ignored;
		if (std::filesystem::is_directory(directory, ignored)) {
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
