#include "publisher/releases/next_version.h"

#include "publisher/common/publish_error.h"
#include "publisher/packages/package.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

namespace {

std::int64_t Number(const PublishOptions& options, const std::optional<int>& last) {
	const std::int64_t next = options.data_version.value_or(last ? std::int64_t{*last} + 1 : 1);
	if (last && next <= *last) {
		throw PublishError("Version " + std::to_string(next) + " of " + options.id + " is not above version " +
		                   std::to_string(*last) + ", which is published already; devices would not take it.");
	}
	if (next > kMaxNumber) {
		throw PublishError("Version " + std::to_string(next) + " of " + options.id + " is above " +
		                   std::to_string(kMaxNumber) + ", the largest that devices read.");
	}
	return next;
}

/** What takes packages into the document that the options name, but for the name of the key. */
std::string RestoreCommand(const PublishOptions& options, const std::string& more) {
	return "tarndbudpub restore --repo " + options.repository + " --db-version " + options.db_version + " --key FILE" +
	       more;
}

void RequireNamed(const PublishOptions& options, const std::vector<PackageFile>& files) {
	if (!files.empty()) {
		throw PublishError("No document names " + options.id + ", though packages of it lie in " + options.repository +
		                   "/packages/" + options.id + ", up to version " + std::to_string(files.back().data_version) +
		                   ", which devices may have. Rebuild the document by \"" + RestoreCommand(options, "") +
		                   "\"; only when no device has them, move them away and begin again.");
	}
	if (options.must_continue) {
		throw PublishError("Nothing of " + options.id + " was ever published in " + options.repository +
		                   ", and --continue allows no first publication; see that the repository is whole and the "
		                   "right one.");
	}
}

void RefuseUnnamed(const PublishOptions& options, int next, const std::vector<PackageFile>& files) {
	const std::int64_t free = std::int64_t{files.back().data_version} + 1;
	throw PublishError("Version " + std::to_string(next) + " of " + options.id +
	                   " cannot be published: " + files.back().path +
	                   " is there, no document names it, and devices may have it. Take it into the "
	                   "document by \"" +
	                   RestoreCommand(options, " --force --id " + options.id) + "\", or go past it by --data-version " +
	                   std::to_string(free) + ".");
}

} // namespace

NextVersion ChooseVersion(const PublishOptions& options, const Repository& repository) {
	const std::optional<int> last = repository.LastVersion(options.id);
	const std::vector<PackageFile> files = repository.Packages(options.id);
	if (!last) {
		RequireNamed(options, files);
	}
	NextVersion next;
	next.data_version = static_cast<int>(Number(options, last));
	next.is_first = !last;
	const auto is_next = [&](const PackageFile& file) { return file.data_version == next.data_version; };
	next.is_begun = std::any_of(
	    files.begin(), files.end(), [&](const PackageFile& file) { return is_next(file) && !file.is_diff; });
	// A publisher puts the full package in place first, so that a killed publisher never leaves a diff package alone.
	if (!files.empty() &&
	    (files.back().data_version > next.data_version || (is_next(files.back()) && !next.is_begun))) {
		RefuseUnnamed(options, next.data_version, files);
	}
	return next;
}

} // namespace tarn::publisher
