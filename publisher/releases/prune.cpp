#include "publisher/releases/prune.h"

#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/withdrawn_packages.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** The bytes of a file, or of all files in a directory. */
std::uint64_t SizeOf(const fs::path& path) {
	std::error_code error;
	if (!fs::is_directory(fs::symlink_status(path, error))) {
		const std::uint64_t size = fs::file_size(path, error);
		return error ? 0 : size;
	}
	std::uint64_t size = 0;
	for (fs::recursive_directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error)) {
		std::error_code ignored; // Not a regular file, which takes no space to speak of.
		const std::uint64_t bytes = entry->file_size(ignored);
		size += ignored ? 0 : bytes;
	}
	return size;
}

/** The steps of Prune(). */
class Pruning {
public:
	Pruning(const PruneOptions& options, const PublishObserver& observer)
	    : options_(options), observer_(observer), repository_(options.repository, observer.waiting) {}

	PruneResult Run() {
		// All of it before the first file goes, so that a document that cannot be read keeps everything.
		for (const std::string& id : options_.ids.empty() ? repository_.PackagedIds() : options_.ids) {
			const std::string directory = repository_.PackageDirectory(id);
			TakePackages(id);
			TakeLeftovers(directory);
			TakeLeftovers(WithdrawnDirectory(directory));
		}
		const std::string& root = repository_.Directory();
		for (const std::string& directory : {root, root + "/packages", root + "/database_info"}) {
			TakeLeftovers(directory);
		}
		if (!options_.dry_run) {
			Remove();
		}
		return std::move(result_);
	}

private:
	void TakePackages(const std::string& id) {
		const std::vector<PackageFile> files = repository_.Packages(id);
		const std::map<std::string, Entry> entries = repository_.EntriesOf(id);
		if (entries.empty()) {
			const std::string sentence = "No document names " + id + ", so nothing of it is removed.";
			if (!options_.ids.empty()) {
				throw PublishError(sentence);
			}
			observer_.warn(sentence);
			return;
		}
		std::vector<PackageFile> in_place;
		std::copy_if(files.begin(), files.end(), std::back_inserter(in_place), [&](const PackageFile& file) {
			return file.path == repository_.Directory() + "/" + Repository::NameOf(id, file);
		});
		const std::vector<PackageFile> withdrawn = PackagesIn(WithdrawnDirectory(repository_.PackageDirectory(id)), id);
		for (const std::string& path : UnneededPackages({id, entries, in_place}, in_place, withdrawn)) {
			result_.Take(path);
		}
	}

	void TakeLeftovers(const std::string& directory) {
		for (const std::string& path : Leftovers(directory)) {
			result_.Take(path);
		}
	}

	void Remove() {
		for (const PruneResult::File& file : result_.files) {
			std::error_code error;
			fs::remove_all(file.path, error); // What a publisher worked with is a directory.
			if (error) {
				throw PublishError(file.path + " could not be removed: " + error.message() + ".");
			}
		}
	}

	const PruneOptions& options_;
	const PublishObserver& observer_;
	Repository repository_;
	PruneResult result_;
};

} // namespace

NeededPackages::NeededPackages(
    const std::string& id, const std::map<std::string, Entry>& entries, const std::vector<PackageFile>& files)
    : id_(id) {
	for (const auto& [name, entry] : entries) {
		highest_ = std::max(highest_, entry.data_version);
		named_.insert(Repository::PackageName(id_, entry.data_version));
		for (const auto& [version, file] : entry.diff_files) {
			named_.insert(Repository::DiffName(id_, version, file));
			full_.insert({version - 1, version});
		}
		int below = -1;
		for (const PackageFile& file : files) {
			if (!file.is_diff && file.data_version < entry.data_version) {
				below = std::max(below, file.data_version);
			}
		}
		full_.insert(below);
	}
}

bool NeededPackages::IsNamed(const PackageFile& file) const {
	return named_.count(Repository::NameOf(id_, file)) > 0;
}

bool NeededPackages::IsAboveAll(const PackageFile& file) const {
	return std::max(file.data_version, file.withdrawal) > highest_;
}

bool NeededPackages::IsNeeded(const PackageFile& file) const {
	return IsNamed(file) || IsAboveAll(file) || (!file.is_diff && full_.count(file.data_version) > 0);
}

std::vector<std::string> UnneededPackages(
    const NeededPackages& needed, const std::vector<PackageFile>& in_place, const std::vector<PackageFile>& withdrawn) {
	std::vector<std::string> paths;
	for (const PackageFile& file : in_place) {
		if (!needed.IsNeeded(file) && fs::is_regular_file(fs::symlink_status(file.path))) {
			paths.push_back(file.path);
		}
	}
	for (const PackageFile& file : withdrawn) {
		paths.push_back(file.path);
	}
	return paths;
}

void PruneResult::Take(const std::string& path) {
	files.push_back({path, SizeOf(path)});
	bytes += files.back().size;
}

PruneResult Prune(const PruneOptions& options, const PublishObserver& observer) {
	for (const std::string& id : options.ids) {
		CheckWord("ID", id);
	}
	RequireRepository(options.repository);
	return Pruning(options, observer).Run();
}

} // namespace tarn::publisher
