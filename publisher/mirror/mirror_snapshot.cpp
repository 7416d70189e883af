#include "publisher/mirror/mirror_snapshot.h"

#include "base/file_io.h"
#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/repository/document.h"
#include "publisher/repository/repository.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr const char* kPackages = "packages";

bool IsHidden(const fs::path& path) {
	return path.filename().string().front() == '.';
}

std::map<std::string, std::string> ReadDocuments(const std::string& repository) {
	std::map<std::string, std::string> texts;
	for (const fs::path& path : PathsIn(repository + "/" + kDocuments)) {
		if (!IsHidden(path)) {
			texts[std::string(kDocuments) + "/" + path.filename().string()] = Document::ReadText(path.string());
		}
	}
	return texts;
}

void TakeNames(const std::string& document, const std::string& id, const Entry& entry, Snapshot& snapshot) {
	const auto newest = snapshot.newest.emplace(id, entry.data_version).first;
	newest->second = std::max(newest->second, entry.data_version);
	snapshot.named.emplace(Repository::PackageName(id, entry.data_version), NamedPackage{document, std::nullopt});
	for (const auto& [version, diff] : entry.diff_files) {
		const auto size = static_cast<std::uint64_t>(diff.file_size);
		snapshot.named.emplace(Repository::DiffName(id, version, diff), NamedPackage{document, size});
	}
}

void TakeDocument(const std::string& repository, const std::string& name, const std::string& text, Snapshot& snapshot) {
	try {
		const Document document = Document::FromText(repository + "/" + name, text);
		for (const std::string& id : document.Ids()) {
			TakeNames(name, id, *document.Find(id), snapshot);
		}
	} catch (const DamagedDocument& error) {
		throw BrokenRepository(std::string("Nothing was carried and nothing deleted: ") + error.what());
	}
}

/** No value for what is gone by now, or no file. */
std::optional<CarriedFile> FileAt(const std::string& path) {
	struct stat status {};
	if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
		return std::nullopt;
	}
	return CarriedFile{static_cast<std::uint64_t>(status.st_size), status.st_mtim.tv_sec};
}

void ListPackages(const std::string& repository, Snapshot& snapshot) {
	for (const fs::path& directory : PathsIn(repository + "/" + kPackages)) {
		if (IsHidden(directory) || !fs::is_directory(directory)) {
			continue;
		}
		for (const PackageFile& file : PackagesIn(directory.string(), directory.filename().string())) {
			const std::string name = fs::path(file.path).lexically_relative(repository).string();
			if (const std::optional<CarriedFile> found = FileAt(file.path)) {
				snapshot.packages[name] = *found;
			}
		}
	}
}

} // namespace

bool IsPackageName(const std::string& name) {
	const fs::path path(name);
	const std::string id = path.parent_path().filename().string();
	const std::string file = path.filename().string();
	const bool is_in_place = path.parent_path().parent_path() == kPackages && !id.empty() && id.front() != '.';
	return is_in_place && EndsWith(file, ".tarn") && (StartsWith(file, id + "_v") || StartsWith(file, id + "_d"));
}

bool IsServersDraft(const std::string& name) {
	constexpr std::size_t kDigits = 10; // NAME.0000000012
	if (name.size() <= kDigits + 1) {
		return false;
	}
	const std::size_t dot = name.size() - kDigits - 1;
	const std::string whole = name.substr(0, dot);
	return name[dot] == '.' && name.find_first_not_of("0123456789", dot + 1) == std::string::npos &&
	       (IsPackageName(whole) || StartsWith(whole, std::string(kDocuments) + "/"));
}

UniqueFd LockMirrors(const std::string& repository, const std::function<void()>& waiting) {
	// Needs no right to write, and leaves no file behind.
	const std::string path = repository + "/" + kDocuments;
	UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	if (!fd) {
		throw BrokenRepository(ErrnoText("Nothing was carried and nothing deleted: " + path, errno) + ".");
	}
	if (!LockExclusively(fd.Get(), waiting)) {
		throw PublishError(ErrnoText("The directory " + path + " cannot be locked", errno) + ".");
	}
	return fd;
}

Snapshot TakeSnapshot(const std::string& repository) {
	Snapshot snapshot;
	snapshot.documents = ReadDocuments(repository);
	if (snapshot.documents.empty()) {
		throw BrokenRepository(
		    "Nothing was carried and nothing deleted: the repository " + repository + " has no document.");
	}
	for (const auto& [name, text] : snapshot.documents) {
		TakeDocument(repository, name, text, snapshot);
	}
	ListPackages(repository, snapshot);
	return snapshot;
}

bool IsCurrent(const Snapshot& snapshot, const std::string& repository) {
	return ReadDocuments(repository) == snapshot.documents;
}

std::string MissingPackage(const Snapshot& snapshot, const CarriedFiles& present) {
	for (const auto& [name, named] : snapshot.named) {
		const auto found = present.find(name);
		if (found == present.end()) {
			return name + ", which " + named.document + " names";
		}
		if (named.size && *named.size != found->second.size) {
			return name + " with the size that " + named.document + " says";
		}
	}
	return "";
}

} // namespace tarn::publisher
