/** @file The mounted file systems. */
#ifndef PLATFORM_TARNSDK_MOUNT_TABLE_H
#define PLATFORM_TARNSDK_MOUNT_TABLE_H

#include <map>
#include <memory>
#include <string>

struct libmnt_table;

namespace tarn::sdk {

constexpr const char* kMountTablePath = "/proc/self/mountinfo";

/** A mounted file system, as the mount table describes it. */
struct Mount {
	/** Whether it stores data on this machine: no pseudo or network file system and no swap area. */
	bool is_storage = false;
	bool is_read_only = false;
};

/** A snapshot of a mount table. */
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
	struct Unreference {
		void operator()(libmnt_table* table) const;
	};
	std::unique_ptr<libmnt_table, Unreference> table_;
};

} // namespace tarn::sdk

#endif
