/**
 * @file
 * Unpacking a signed package, for strategies.
 */
#ifndef DATAUPDATE_INTERNAL_EXTRACT_PACKAGE_H
#define DATAUPDATE_INTERNAL_EXTRACT_PACKAGE_H

#include <functional>
#include <string>

namespace tarn::dataupdate {

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
