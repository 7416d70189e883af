#include "publisher/site/kept_changes.h"

#include "archive/file.h"
#include "base/file_io.h"
#include "base/sha2.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/site/markup.h"
#include "publisher/site/pages.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace tarn::publisher::site {

namespace {

namespace fs = std::filesystem;

/** As much as a page lists: files, tables and examples together. */
constexpr std::size_t kMostListed = 500;

/** What tells a package from any other: its head, its metadata, and the digests of all its frames. */
std::string IdentityOf(const std::string& path) {
	const archive::ArchiveFile package(path);
	Sha256 identity;
	identity.Add(archive::EncodeHead(package.Head()));
	identity.Add(package.Metadata());
	for (const archive::Frame& frame : package.Frames()) {
		identity.Add(archive::EncodeFrame(frame));
	}
	return identity.FinishHex();
}

/** The version before another that was not withdrawn; no value when there is none. */
std::optional<int> VersionBefore(const Database& database, int number) {
	for (const Version& version : database.versions) {
		if (version.number < number && !version.is_withdrawn) {
			return version.number;
		}
	}
	return std::nullopt;
}

const PackageFile* FindPackage(const Database& database, int version, bool is_diff) {
	const auto found = std::find_if(database.packages.begin(), database.packages.end(), [&](const PackageFile& file) {
		return file.data_version == version && file.is_diff == is_diff && file.withdrawal == 0;
	});
	return found == database.packages.end() ? nullptr : &*found;
}

/** Adds the packages that a version is made from, as MakeVersionTree() chooses them; false when one is missing. */
bool AddPackages(const Database& database, int version, std::vector<std::string>& paths) {
	for (int at = version; at >= 0; --at) {
		if (const PackageFile* full = FindPackage(database, at, false)) {
			paths.push_back(full->path);
			return true;
		}
		const PackageFile* diff = FindPackage(database, at, true);
		if (diff == nullptr) {
			return false;
		}
		paths.push_back(diff->path);
	}
	return false;
}

std::optional<std::string> ReadKept(const std::string& path) {
	std::ifstream file(path, std::ios::binary);
	if (!file) {
		return std::nullopt;
	}
	std::string text{std::istreambuf_iterator<char>(file), {}};
	return file.bad() ? std::nullopt : std::optional(std::move(text));
}

} // namespace

KeptChanges::KeptChanges(const std::string& repository, const std::vector<std::string>& keys, std::size_t examples,
    const PublishObserver& observer)
    : observer_(observer), directory_(repository + "/" + kKeptChangesName) {
	options_.repository = repository;
	options_.keys = keys;
	options_.examples = examples;
	options_.most_listed = kMostListed;
	MakeServedDirectories(directory_);
	lock_ = LockFile(directory_ + "/.lock", observer_.waiting);
	for (const fs::path& path : PathsIn(directory_)) {
		if (fs::is_directory(path)) {
			RemoveLeftovers(path.string());
		}
	}
	constants_ = std::string(TARNDBUDPUB_VERSION) + " " + std::to_string(kChangesViewFormat) + " " +
	             std::to_string(kMostListed) + " " + std::to_string(examples);
	std::set<std::string> fingerprints;
	for (const Key& key : ReadKeys(keys)) {
		fingerprints.insert(key.fingerprint);
	}
	for (const std::string& fingerprint : fingerprints) {
		constants_ += " " + fingerprint;
	}
}

std::string KeptChanges::NameOf(const Database& database, int version, const std::vector<std::string>& packages) const {
	Sha256 deciding;
	deciding.Add(constants_);
	for (const std::string& path : packages) {
		deciding.Add(" " + IdentityOf(path));
	}
	return directory_ + "/" + PathName(database.id) + "/" + std::to_string(version) + "-" + deciding.FinishHex() +
	       ".html";
}

std::optional<ReleaseChanges> KeptChanges::Of(const Database& database, const Version& version) {
	const std::optional<int> from = VersionBefore(database, version.number);
	if (version.is_withdrawn || version.restores || !from) {
		return std::nullopt;
	}
	std::vector<std::string> packages;
	if (!AddPackages(database, *from, packages) || !AddPackages(database, version.number, packages)) {
		return std::nullopt;
	}
	try {
		const std::string path = NameOf(database, version.number, packages);
		used_.insert(path);
		if (std::optional<std::string> kept = ReadKept(path)) {
			++found_;
			return ReleaseChanges{*from, std::move(*kept)};
		}
		options_.id = database.id;
		options_.from = from;
		options_.to = version.number;
		std::string markup = ViewChanges(FindChanges(options_, observer_));
		++made_;
		ReplacingFile file(path);
		WriteFully(file.Fd(), markup.data(), markup.size(), path);
		file.Commit();
		return ReleaseChanges{*from, std::move(markup)};
	} catch (const std::exception& error) {
		observer_.warn("The site does not tell what version " + std::to_string(version.number) + " of " + database.id +
		               " changes: " + error.what());
		return std::nullopt;
	}
}

void KeptChanges::RemoveOthers() const {
	for (const fs::path& directory : PathsIn(directory_)) {
		if (!fs::is_directory(directory)) {
			continue;
		}
		for (const fs::path& path : PathsIn(directory.string())) {
			std::error_code error;
			if (used_.count(path.string()) == 0 && !fs::remove(path, error) && error) {
				throw PublishError(path.string() + " could not be removed: " + error.message() + ".");
			}
		}
		std::error_code not_empty;
		fs::remove(directory, not_empty);
	}
}

} // namespace tarn::publisher::site
