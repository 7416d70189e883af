/** @file The databases of a volume when they change their volume: records, marks, and what a move left where. */
#ifndef TARNDBUDCTL_VOLUME_CONTENT_H
#define TARNDBUDCTL_VOLUME_CONTENT_H

#include "services.h"

#include <json/value.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarn::ctl {

/** Every name below a directory, with its kind and, of a file, its size; nothing below what does not exist. */
using Content = std::map<std::string, std::pair<std::filesystem::file_type, uintmax_t>>;

/** No value when something cannot be examined. */
std::optional<Content> ContentBelow(const std::string& directory);

/** The databases that are installed on a volume, which need not be in use any more. */
std::vector<std::string> InstalledOnVolumes(const Services& services);

/**
 * Marks a database as one whose files may not be whole, so that the next update or fix installs it anew even if its
 * version has not changed. False when it is marked already. Throws CommandError.
 */
bool MarkUnfinished(const std::string& id);
/** Takes the mark away again. */
void Unmark(const std::string& id);

/** Brings a file system's data to the disk. Throws CommandError. */
void SyncFileSystemOf(const std::string& path);

/** Records name files by absolute paths as well: lets these lead to the volume, and keeps everything else. */
void LetRecordsFollow(const Services& services, const std::string& volume);

/**
 * Puts the records right for a volume that has just been taken into use, and marks the databases that it lacks or whose
 * recorded files are not all right there. These become "incomplete" of the answer; returned is what to say of them.
 */
std::string TakeOver(const Services& services, const std::string& volume, Json::Value& answer);

} // namespace tarn::ctl

#endif
