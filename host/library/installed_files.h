/** @file The host's own record of all installed files of a database, beside the library's of the last update's. */
#ifndef HOST_LIBRARY_INSTALLED_FILES_H
#define HOST_LIBRARY_INSTALLED_FILES_H

#include "dataupdate/file_list.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarn::ctl {

/** One installed file: a regular one, or a link, which only a forced version brings. */
struct InstalledFile {
	bool operator==(const InstalledFile& other) const;

	std::string sha384_digest;         ///< 96 lower-case hexadecimal digits; empty for a link.
	std::optional<std::uint64_t> size; ///< Bytes; none when the digest is all that is known.
	std::string link_target;           ///< Empty for a regular file.
};

/** Many installed files by their names, in order, in little memory. */
class InstalledFileTable {
public:
	/** Appends a file; Sort() unless names come in order. */
	void Add(std::string_view name, const InstalledFile& file);
	/** Of files with one name the first that was added stays. */
	void Sort() { list_.Sort(); }
	/** As FileList::FreeBefore(). */
	void FreeBefore(std::size_t at) { list_.FreeBefore(at); }

	[[nodiscard]] std::size_t Size() const { return list_.Size(); }
	[[nodiscard]] std::string_view Name(std::size_t at) const { return list_.Name(at); }
	[[nodiscard]] InstalledFile At(std::size_t at) const;
	[[nodiscard]] std::optional<std::size_t> Place(std::string_view name) const { return list_.Find(name); }
	[[nodiscard]] bool Has(std::string_view name) const { return Place(name).has_value(); }
	[[nodiscard]] std::optional<InstalledFile> Find(std::string_view name) const;
	bool operator==(const InstalledFileTable& other) const { return list_ == other.list_; }

private:
	dataupdate::FileList list_;
};

/** All files of one version, by their names relative to the install directory, so that the directory may move. */
struct InstalledFiles {
	int data_version = -1;
	/**
	 * Whether the files were recorded as they lay on the disk, after the record had been lost. What was damaged by
	 * then is then taken for right, but for the files that the library's own record names.
	 */
	bool is_from_disk = false;
	InstalledFileTable files;
};

std::string InstalledFilesPath(const std::string& id);

/** No value when there is no record, or none that can be read and understood. */
std::optional<InstalledFiles> ReadInstalledFiles(const std::string& id);
/**
 * Whether there is a record of a version that is at least as new as the library's own. Reads its beginning and its end
 * only: with many files that is a small part of the time that the record takes.
 */
[[nodiscard]] bool SeemsCurrent(const std::string& id, int version);
/** Has the record seem current from now on, because it has been compared with the library's. */
void ConfirmInstalledFiles(const std::string& id);
/** Replaces the record as a whole. Throws Error naming the path. */
void WriteInstalledFiles(const std::string& id, const InstalledFiles& record);
/**
 * Removes the record durably: to be called before the library records a new state, since the version alone does not
 * tell which of two installations of one version the files belong to. A failure is logged.
 */
void DropInstalledFiles(const std::string& id);

} // namespace tarn::ctl

#endif
