#include "publisher/package_files.h"

#include "publisher/publish_error.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <tuple>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

std::optional<PackageFile> Recognise(const fs::path& path, const std::string& id) {
	constexpr std::string_view kSuffix = ".tarn";
	const std::string name = path.filename().string();
	const std::size_t prefix = id.size() + 2; // "_v" or "_d"
	if (name.size() <= prefix + kSuffix.size() || name.compare(0, id.size(), id) != 0 || name[id.size()] != '_' ||
	    path.extension() != kSuffix) {
		return std::nullopt;
	}
	const char kind = name[id.size() + 1];
	const std::optional<int> version =
	    ParseVersion(std::string_view(name).substr(prefix, name.size() - prefix - kSuffix.size()));
	if (!version || (kind != 'v' && kind != 'd')) {
		return std::nullopt;
	}
	return PackageFile{path.string(), *version, kind == 'd'};
}

std::vector<fs::path> EntriesOf(const std::string& directory) {
	std::vector<fs::path> entries;
	std::error_code error;
	for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
		entries.push_back(entry->path());
	}
	if (error && error != std::errc::no_such_file_or_directory) {
		throw PublishError(directory + " cannot be read: " + error.message() + ".");
	}
	return entries;
}

} // namespace

std::optional<int> ParseVersion(std::string_view digits) {
	int version = -1;
	const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), version);
	const bool whole = result.ec == std::errc() && result.ptr == digits.data() + digits.size();
	return whole && version >= 0 ? std::optional(version) : std::nullopt;
}

std::vector<PackageFile> ListPackageFiles(const std::string& directory, const std::string& id) {
	std::vector<PackageFile> files;
	for (const fs::path& path : EntriesOf(directory)) {
		if (std::optional<PackageFile> file = Recognise(path, id)) {
			files.push_back(std::move(*file));
		}
	}
	std::sort(files.begin(), files.end(), [](const PackageFile& left, const PackageFile& right) {
		return std::tie(left.data_version, left.is_diff, left.path) <
		       std::tie(right.data_version, right.is_diff, right.path);
	});
	return files;
}

std::vector<std::string> ListPackagedIds(const std::string& directory) {
	std::vector<std::string> ids;
	for (const fs::path& path : EntriesOf(directory)) {
		if (fs::is_directory(path) && path.filename().string().front() != '.') {
			ids.push_back(path.filename().string());
		}
	}
	std::sort(ids.begin(), ids.end());
	return ids;
}

} // namespace tarn::publisher
