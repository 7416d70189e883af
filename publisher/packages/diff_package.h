/** @file What a diff package holds, and the tree that a device has after it. */
#ifndef PUBLISHER_PACKAGES_DIFF_PACKAGE_H
#define PUBLISHER_PACKAGES_DIFF_PACKAGE_H

#include "archive/file.h"
#include "publisher/common/files.h"
#include "publisher/packages/package.h"

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::publisher {

constexpr const char* kDescriptionName = "patch_infos.json";
constexpr const char* kDiffKind = "diff";
/** In the metadata of a withdrawal's packages: the version whose content comes back. */
constexpr const char* kRestoresKey = "restores";
/** In the metadata of an empty diff package that took another's place: the version of the withdrawal. */
constexpr const char* kWithdrawnByKey = "withdrawn_by";
/** In the metadata of all packages of a version: what the publisher says about it. */
constexpr const char* kNotesKey = "notes";

/** How a diff package carries the change of one file. */
enum class PatchKind {
	kWhole,  ///< the file itself
	kVcdiff, ///< a patch against the bytes of the version before
	kScript, ///< SQL statements that change the content
	kNone,   ///< nothing: the file is deleted
	kEmptied ///< nothing: the name is that of a directory in which the package deletes the last file
};

/** "whole", "vcdiff", "sql", "none" or "dir". */
const char* PatchKindName(PatchKind kind);
/** ".new", ".vcdiff", ".sqlitediff", or nothing. */
const char* PatchKindExtension(PatchKind kind);

/** "create", "update" or "delete". */
const char* OperationOf(PatchKind kind);
/** The name of a package's input file with a number, counted from 0. */
std::string InputFileName(std::size_t number, PatchKind kind);

/** One file that a diff package changes, or a directory that it removes. */
struct DiffMember {
	std::string name; // relative to the installed tree
	std::string input_file;
	PatchKind kind = PatchKind::kNone;
	std::uint64_t size = 0; // of the input file
};

struct DiffPackage {
	std::vector<DiffMember> members; // in byte order of names
	Json::Value metadata;            // null when it is no JSON
};

/**
 * Reads a diff package's description and metadata without unpacking it.
 *
 * @throws Error when it is damaged or holds no description in the form that devices read
 */
DiffPackage ReadDiffPackage(const archive::ArchiveFile& archive);

/**
 * The text of "patch_infos.json".
 *
 * @param emptied  directories in which the members delete the last file: devices that took a full package do not have
 * them
 */
std::string DescriptionText(const std::vector<DiffMember>& members, const std::vector<std::string>& emptied = {});

/** Writes a description into a work directory, and adds it to what a package is to hold; throws PublishError. */
void AddDescription(const std::string& text, const WorkDirectory& work, Tree& content);

/** A diff package, and the version that it leads to. */
struct DiffStep {
	int version = 0;
	std::string path;
};

/**
 * Applies diff packages in turn to the files in a directory, and puts the result in place after the last one. Takes
 * room in the work directory for one unpacked package at a time and for working copies, and gives it back.
 *
 * @throws PublishError naming the package that cannot be trusted, or saying that devices could not apply it
 */
void ApplyDiffs(const PackageReader& reader, const std::string& id, const std::vector<DiffStep>& steps,
    const std::string& directory, const WorkDirectory& work);

/**
 * The same for packages that are to be published: throws also when devices that have the files in the directory would
 * refuse them. Published packages still make their version's content where devices refuse them.
 */
void ProveDiffs(const PackageReader& reader, const std::string& id, const std::vector<DiffStep>& steps,
    const std::string& directory, const WorkDirectory& work);

} // namespace tarn::publisher

#endif
