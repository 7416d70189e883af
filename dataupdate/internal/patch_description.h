/** @file What an unpacked diff package says about itself, and whether its files can be put where they belong. */
#ifndef DATAUPDATE_INTERNAL_PATCH_DESCRIPTION_H
#define DATAUPDATE_INTERNAL_PATCH_DESCRIPTION_H

#include "dataupdate/strategy.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/** Whether a name stays below whatever directory it is joined to: it is not absolute and has no "..". */
[[nodiscard]] bool StaysBelow(const std::string& name);

/** The shortest spelling of such a name: "a/b" of "./a//b". */
std::string PlainName(const std::string& name);

/** Joins as a path does that an absolute right side replaces; the key of an installed file may be absolute. */
std::string JoinPath(const std::string& root, const std::string& path);

/** The same changes by their names' shortest spelling, by which names sort and contain each other. */
std::map<std::string, ModifyInfo> ByPlainName(const std::map<std::string, ModifyInfo>& modify_infos);

/**
 * Bytes of "patch_infos.json", and bytes in it that are a comma or an opening bracket, of which each value has one:
 * what 200,000 files take whose names are as long as they may be.
 */
constexpr std::uint64_t kMaxDescriptionBytes = std::uint64_t{64} << 20U;
constexpr std::uint64_t kMaxDescriptionValues = 1'000'000;

/** One member of "patch_infos.json". */
struct PatchMember {
	std::string name;      ///< The database's file, relative to the install directory.
	std::string operation; ///< As written, known or not.
	std::string input;     ///< Path of the package's file with the content or the patch.
};

/**
 * Reads the description of the package unpacked into a directory, in order of the names. The whole of it is checked
 * before anything of it is used: throws UpdateError when it is missing, "Illegal file name in diff package: <name>"
 * when a name could lead out of the install directory or names no file, "Illegal input file in diff package: <name>"
 * when an input file could lie outside of the package, "Too large a description of patches: <path>" when it is
 * larger than the limits above, which is found out before it is parsed. JsonCpp's exceptions about values of
 * other types than the expected ones pass through.
 */
std::vector<PatchMember> ReadPatchDescription(const std::string& package_directory);

/**
 * Throws UpdateError "In the way of <file>: <path>" when an installed file, or a link, has the place of a directory
 * above a new file, a directory holds files that the chain does not delete where a new file goes, one new file is above
 * another, or the journal of a database that is replaced holds changes of another program.
 */
void CheckConflicts(const std::map<std::string, ModifyInfo>& modify_infos, const std::string& install_directory);

} // namespace tarn::dataupdate

#endif
