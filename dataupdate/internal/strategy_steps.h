/** @file What the strategies share: the temporary area, and the unpacking of a signed package. */
#ifndef DATAUPDATE_INTERNAL_STRATEGY_STEPS_H
#define DATAUPDATE_INTERNAL_STRATEGY_STEPS_H

#include <functional>
#include <string>
#include <string_view>

namespace tarn::dataupdate {

/** Ends the name of the directory that a full package is unpacked to. */
constexpr char kUnpacked[] = "full";
/** Ends the name of the directory with a diff update's working copies, and what the update replaced. */
constexpr char kAccumulated[] = "sum";
/** With the version behind it, ends the names of a full package, a diff package, and what the latter is unpacked to. */
constexpr char kFullPackage[] = "v";
constexpr char kDiffPackage[] = "d";
constexpr char kDelta[] = "delta_";
/** Ends the name of a package that is installed by force. */
constexpr char kForced[] = "debug";
/** Ends the names of what checking hooks look at: a diff update's files under their names, and the list of changes. */
constexpr char kChecked[] = "check";
constexpr char kChanges[] = "changes";

/** A name of a database's own in the temporary area: "<area>/<id>_<suffix>". */
std::string TempPath(const std::string& volume, const std::string& id, const std::string& suffix);

/** Whether a strategy gives names this suffix: "geo_city_sum" is a name of "geo_city", and none of "geo". */
bool IsTempSuffix(std::string_view suffix);

/**
 * Makes a directory, with missing parents, in which nothing is, so that nothing of a killed run is unpacked over,
 * patched or installed. To be called right before the directory is used. Throws IOUtils::RmRf's and TarnMkdir's errors.
 */
void MakeEmptyDirectory(const std::string& path);

/**
 * Removes a link that lies where a package is downloaded to: the download would write to whatever the link leads to.
 * Throws UpdateError "Fail to remove all: <path>".
 */
void RemoveLink(const std::string& path);

/** Removes a downloaded package. For destructors: a failure is logged, and a missing file is none. */
void CleanTarball(const std::string& path) noexcept;

/** Removes a directory with everything below it, likewise. */
void CleanTmpData(const std::string& path) noexcept;

/** Removes what a diff update left, likewise. */
void ClearTmpData(const std::string& path) noexcept;

/** Opens a package, if it is there, as unpacking would, and unpacks nothing; what is wrong with it changes nothing. */
void NotePackage(const std::string& tarball);

/**
 * Does what BaseStrategy::_ExtractTarballTo() does, and throws the same errors.
 *
 * @param before_first_change  called between the check of the package and the first file that is written, so that a
 *                             refused package leaves no trace where it would have been unpacked
 */
void ExtractPackage(
    const std::string& tarball, const std::string& destination, const std::function<void()>& before_first_change);

} // namespace tarn::dataupdate

#endif
