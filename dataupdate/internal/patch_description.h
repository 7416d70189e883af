/** @file What an unpacked diff package says about itself. */
#ifndef DATAUPDATE_INTERNAL_PATCH_DESCRIPTION_H
#define DATAUPDATE_INTERNAL_PATCH_DESCRIPTION_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::dataupdate {

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

} // namespace tarn::dataupdate

#endif
