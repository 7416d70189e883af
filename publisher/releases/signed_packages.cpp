#include "publisher/releases/signed_packages.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"

#include <sys/stat.h>

#include <algorithm>

namespace tarn::publisher {

namespace {

int FileTime(const std::string& path) {
	struct stat status {};
	const std::int64_t seconds = stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
	return static_cast<int>(std::clamp<std::int64_t>(seconds, 0, kMaxNumber));
}

/** Throws PublishError unless a package in its place fits its name and the document. */
void CheckFits(const PackageFile& file, const Json::Value& metadata, std::uint64_t size) {
	if (metadata.get(kWithdrawnByKey, 0) != file.withdrawal) {
		throw PublishError("the package " + file.path + " is of another withdrawal than its name says");
	}
	if (file.is_diff && size > static_cast<std::uint64_t>(kMaxNumber)) {
		throw PublishError("the package " + file.path + " is larger than the document can say");
	}
}

SignedPackage ReadSigned(
    const Repository& repository, const PackageReader& reader, const std::string& id, const PackageFile& file) {
	const std::string place = repository.Directory() + "/" + Repository::NameOf(id, file);
	if (file.path != place) {
		throw PublishError("the package " + file.path + " should be named " + place);
	}
	const std::string kind = file.is_diff ? kDiffKind : "full";
	const archive::ArchiveFile archive = reader.Open(file.path, {id, "", file.data_version, kind});
	const Json::Value metadata = ReadMetadata(archive);
	const std::uint64_t size = archive.Head().FileSize();
	CheckFits(file, metadata, size);
	const Json::Value& format = metadata[kFormatKey];
	const std::optional<int> published = PublishedTime(metadata);
	return {file.path, published ? *published : FileTime(file.path), published.has_value(),
	    format.isString() ? format.asString() : "", size};
}

} // namespace

SignedPackages ReadSignedPackages(const Repository& repository, const PackageReader& reader, const std::string& id,
    const std::optional<std::string>& format_version, const PublishObserver& observer) {
	const std::vector<PackageFile> files = repository.Packages(id);
	SignedPackages packages;
	std::uint64_t done = 0;
	for (const PackageFile& file : files) {
		observer.step("reading packages of " + id, done++, files.size());
		try {
			const SignedPackage package = ReadSigned(repository, reader, id, file);
			if (format_version.value_or(package.format_version) == package.format_version) {
				(file.is_diff ? packages.diffs[file.data_version][file.withdrawal] : packages.full[file.data_version]) =
				    package;
				packages.highest = std::max(packages.highest, file.data_version);
			}
		} catch (const PublishError& error) {
			packages.highest = std::max(packages.highest, file.data_version);
			observer.warn("Left out: " + WithoutEnd(error.what()) + ".");
		}
	}
	return packages;
}

} // namespace tarn::publisher
