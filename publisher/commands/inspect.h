/** @file Looking at one package. */
#ifndef PUBLISHER_COMMANDS_INSPECT_H
#define PUBLISHER_COMMANDS_INSPECT_H

#include <ostream>
#include <string>
#include <vector>

namespace tarn::publisher {

/**
 * Checks a package as a device does.
 *
 * @return one sentence that says which of the keys verified it
 * @throws PublishError when no key did, or the package is damaged
 */
[[nodiscard]] std::string VerifyPackage(const std::string& package, const std::vector<std::string>& key_files);

/**
 * Checks a package and unpacks its members.
 *
 * @param directory  is made when it is missing
 * @return one sentence that says what is where now
 * @throws PublishError as VerifyPackage(), and when a member cannot be written
 */
[[nodiscard]] std::string UnpackPackage(
    const std::string& package, const std::vector<std::string>& key_files, const std::string& directory);

/** Prints head, metadata and members of a package without checking its signature; throws PublishError. */
void InspectPackage(const std::string& package, bool json, std::ostream& out);

} // namespace tarn::publisher

#endif
