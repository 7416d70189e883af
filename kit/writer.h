/** @file Writing a kit. */
#ifndef KIT_WRITER_H
#define KIT_WRITER_H

#include "base/unique_fd.h"
#include "kit/table.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tarn::kit {

/** A package to be put into a kit: what it is, and its file. */
struct Package {
	Part part; ///< The digest is found while the package is copied.
	UniqueFd file;
};

/** Called with the bytes of packages that are done. */
using Progress = std::function<void(std::uint64_t bytes)>;

/**
 * Writes a kit into an empty file. The same document and packages give the same bytes. Brings nothing to the disk.
 *
 * @throws Error when a package cannot be read or has not its size, or the file cannot be written
 */
void Write(int fd, const std::string& document, std::vector<Package> packages, const Progress& progress);

} // namespace tarn::kit

#endif
