/** @file Asking the host's own checks whether a prepared update may be installed. */
#ifndef DATAUPDATE_INTERNAL_VALIDATION_H
#define DATAUPDATE_INTERNAL_VALIDATION_H

#include "dataupdate/strategy.h"

#include <functional>
#include <optional>
#include <string>

namespace tarn::dataupdate {

/** What is going to be installed, as long as nothing has been replaced. */
struct PreparedUpdate {
	std::string tree; ///< Holds all files of the new version under their names; empty where only some change.
	std::function<void(const VisitFile& visit)> for_each; ///< The files of the tree, or those that change.
	/** Whether it can be installed; nobody is asked about what is going to fail before it replaces a file. */
	std::function<bool()> is_installable;
};

/** Whose update it is. */
struct ValidationRequest {
	std::string id;
	std::optional<int> installed_version; ///< None: unknown.
	int version = 0;
	std::string volume; ///< Temporary data goes below it.
	std::string install_directory;
};

/**
 * Runs the checking hooks of module "database_autoupdate" and path "database_autoupdate/validate", if there are any and
 * the platform knows of such: docs/operations.md describes what they are told. To be called before readers are held
 * off. Throws UpdateError "Refused by hook '<path>': <sentence>" or "No verdict by hook '<path>': <why>", errors about
 * the temporary area, Boost's filesystem error, and "Interrupted".
 */
void Validate(const ValidationRequest& request, const PreparedUpdate& prepared);

} // namespace tarn::dataupdate

#endif
