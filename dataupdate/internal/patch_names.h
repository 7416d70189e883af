/** @file The names in a diff package: which are safe to use, and which mean the same file. */
#ifndef DATAUPDATE_INTERNAL_PATCH_NAMES_H
#define DATAUPDATE_INTERNAL_PATCH_NAMES_H

#include "dataupdate/strategy.h"

#include <map>
#include <string>

namespace tarn::dataupdate {

/** Whether a name stays below whatever directory it is joined to: it is not absolute and has no "..". */
[[nodiscard]] bool StaysBelow(const std::string& name);

/** Whether a name stays below the directory and ends with the name of a file: "./a//b", but neither "a/" nor ".". */
[[nodiscard]] bool IsFileNameBelow(const std::string& name);

/** The shortest spelling of such a name: "a/b" of "./a//b". */
std::string PlainName(const std::string& name);

/** Joins as a path does that an absolute right side replaces; the key of an installed file may be absolute. */
std::string JoinPath(const std::string& root, const std::string& path);

/** The same changes by their names' shortest spelling, by which names sort and contain each other. */
std::map<std::string, ModifyInfo> ByPlainName(const std::map<std::string, ModifyInfo>& modify_infos);

} // namespace tarn::dataupdate

#endif
