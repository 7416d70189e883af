#include "platform/tarnsdk/mount_table.h"

#include <libmount/libmount.h>

#include <filesystem>
#include <system_error>

namespace tarn::sdk {
namespace {

bool HasReadOnlyOption(const char* options) {
	return options != nullptr && mnt_optstr_get_option(options, "ro", nullptr, nullptr) == 0;
}

/** Read-only is either the mount, or the file system below it, which falls back to it after errors. */
bool IsReadOnly(libmnt_fs* fs) {
	return HasReadOnlyOption(mnt_fs_get_vfs_options(fs)) || HasReadOnlyOption(mnt_fs_get_fs_options(fs));
}

} // namespace

void MountTable::Unreference::operator()(libmnt_table* table) const {
	mnt_unref_table(table);
}

MountTable::MountTable(const std::string& path) : table_(mnt_new_table_from_file(path.c_str())) {}

std::map<std::string, Mount> MountTable::ByPath() const {
	struct FreeIterator {
		void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
	};
	const std::unique_ptr<libmnt_iter, FreeIterator> iterator(mnt_new_iter(MNT_ITER_FORWARD));
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

} // namespace tarn::sdk
