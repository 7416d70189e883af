#include "publisher/work_directory.h"

#include "base/text.h"
#include "publisher/publish_error.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr const char* kPrefix = ".tarndbudpub-work-";

} // namespace

WorkDirectory::WorkDirectory(const std::string& repository) {
	// Absolute and without links, since it goes to other programs and is compared with what they see.
	std::string name = (fs::canonical(repository) / (std::string(kPrefix) + "XXXXXX")).string();
	if (mkdtemp(name.data()) == nullptr) {
		throw PublishError(ErrnoText("No directory can be created in " + repository, errno) + ".");
	}
	path_ = name;
}

WorkDirectory::~WorkDirectory() {
	try {
		fs::remove_all(path_);
	} catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the next publisher removes what is left
	}
}

std::string WorkDirectory::Make(const std::string& name) const {
	try {
		fs::create_directories(path_ + "/" + name);
	} catch (const fs::filesystem_error& error) {
		throw PublishError(
		    "No directory can be created: " + error.path1().string() + ": " + error.code().message() + ".");
	}
	return path_ + "/" + name;
}

void WorkDirectory::RemoveLeftovers(const std::string& repository) {
	try {
		for (const fs::directory_entry& entry : fs::directory_iterator(repository)) {
			if (StartsWith(entry.path().filename().string(), kPrefix)) {
				fs::remove_all(entry.path());
			}
		}
	} catch (const std::system_error& error) {
		throw PublishError(
		    "What a killed publisher left in " + repository + " cannot be removed: " + error.code().message() + ".");
	}
}

} // namespace tarn::publisher
