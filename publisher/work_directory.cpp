#include "publisher/work_directory.h"

#include "base/text.h"
#include "publisher/publish_error.h"
#include "publisher/replacing_file.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace tarn::publisher {

namespace fs = std::filesystem;

WorkDirectory::WorkDirectory(const std::string& repository) {
	// Absolute and without links, since it goes to other programs and is compared with what they see.
	std::string name = (fs::canonical(repository) / (std::string(kWorkPrefix) + "XXXXXX")).string();
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

} // namespace tarn::publisher
