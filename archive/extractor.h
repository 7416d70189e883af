/** @file Taking the members out of a checked archive. */
#ifndef ARCHIVE_EXTRACTOR_H
#define ARCHIVE_EXTRACTOR_H

#include "archive/file.h"
#include "archive/payload.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tarn::archive {

/** What no archive may exceed, whatever its head declares. */
struct Limits {
	std::uint64_t entries = 4'000'000;
	std::uint64_t bytes = std::uint64_t{256} << 30U;
};

/**
 * Extracts the named members, or all without names, of an archive that ArchiveFile::Check() has accepted. Throws Error
 * at the first member that breaks a rule; the members before it remain.
 */
void Extract(
    const ArchiveFile& archive, int directory, const std::vector<std::string>& members = {}, const Limits& limits = {});

/** Calls back for every member of an archive, extracting nothing; the limits apply all the same. */
void ForEachMember(
    const ArchiveFile& archive, const std::function<void(const Member&)>& callback, const Limits& limits = {});

} // namespace tarn::archive

#endif
