#include "publisher/withdrawn_packages.h"

#include "base/text.h"
#include "publisher/files.h"
#include "publisher/publish_error.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <vector>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDirectory = ".withdrawn";

/** Takes one package away, or its mark when there is nothing to take away. */
void Move(const fs::path& kept, const std::set<std::string>& offered) {
	const fs::path package = kept.parent_path().parent_path() / kept.filename();
	const bool is_offered = offered.count(package.filename().string()) > 0;
	if (!is_offered && fs::exists(package)) {
		fs::rename(package, kept);
	} else if (fs::is_empty(kept)) {
		fs::remove(kept);
	}
}

} // namespace

std::string WithdrawnPath(const std::string& package) {
	const fs::path path(package);
	return (path.parent_path() / kDirectory / path.filename()).string();
}

std::string WithdrawnDirectory(const std::string& directory) {
	return (fs::path(directory) / kDirectory).string();
}

void MarkWithdrawn(const std::string& package) {
	const std::string mark = WithdrawnPath(package);
	const std::string directory = fs::path(mark).parent_path().string();
	constexpr mode_t kMode = 0700;
	if (mkdir(directory.c_str(), kMode) != 0 && errno != EEXIST) {
		throw PublishError(ErrnoText(directory + " could not be created", errno) + ".");
	}
	if (!fs::exists(mark)) {
		ReplacingFile(mark).Commit();
	}
}

void MoveWithdrawn(const std::string& directory, const std::set<std::string>& offered) {
	const fs::path withdrawn = fs::path(directory) / kDirectory;
	if (!fs::is_directory(withdrawn)) {
		return;
	}
	RemoveLeftovers(withdrawn.string());
	try {
		// Listed first: the loop changes the directory.
		std::vector<fs::path> kept;
		for (const fs::directory_entry& entry : fs::directory_iterator(withdrawn)) {
			kept.push_back(entry.path());
		}
		for (const fs::path& path : kept) {
			Move(path, offered);
		}
	} catch (const fs::filesystem_error& error) {
		throw PublishError(
		    "Withdrawn packages cannot be moved to " + withdrawn.string() + ": " + error.code().message() + ".");
	}
}

} // namespace tarn::publisher
