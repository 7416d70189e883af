#include "publisher/repository/withdrawn_packages.h"

#include "base/text.h"
#include "base/unique_fd.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/document.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <vector>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDirectory = ".withdrawn";
constexpr const char* kMark = ".by"; // between a package's name and the version of the withdrawal

struct Mark {
	fs::path path;
	std::string package; // its name
	int withdrawal = 0;
};

std::vector<Mark> MarksIn(const std::string& withdrawn) {
	std::vector<Mark> marks;
	for (const fs::path& path : PathsIn(withdrawn)) {
		const std::string name = path.filename().string();
		const std::size_t end = name.rfind(kMark);
		const auto withdrawal =
		    end == std::string::npos ? std::nullopt : ParseVersion(name.substr(end + std::string(kMark).size()));
		if (withdrawal) {
			marks.push_back({path, name.substr(0, end), *withdrawal});
		}
	}
	return marks;
}

/** The mark of a withdrawal that was killed before its document withdraws nothing. */
bool IsPublished(const Mark& mark, int newest) {
	return mark.withdrawal <= newest;
}

/** Takes the package away first: the mark of a package that is gone is removed by the next publisher. */
void Follow(const Mark& mark, const fs::path& directory, const std::set<std::string>& offered, int newest) {
	const fs::path package = directory / mark.package;
	const bool is_published = IsPublished(mark, newest);
	if (is_published && offered.count(mark.package) > 0) {
		return;
	}
	if (is_published && fs::exists(package)) {
		fs::rename(package, WithdrawnPath(package.string()));
	}
	fs::remove(mark.path);
}

/**
 * An administrator's withdrawal must not stop the user who publishes by a timer. Files need no such care: who owns
 * their directory may move and remove them.
 */
void GiveToOwnerOf(const fs::path& parent, const std::string& directory) {
	struct stat wanted {};
	struct stat found {};
	const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
	const bool is_known = fd && stat(parent.c_str(), &wanted) == 0 && fstat(fd.Get(), &found) == 0;
	const bool is_given = is_known && found.st_uid == wanted.st_uid && found.st_gid == wanted.st_gid;
	if (!is_known || (!is_given && fchown(fd.Get(), wanted.st_uid, wanted.st_gid) != 0)) {
		throw PublishError(
		    ErrnoText(directory + " could not be given to the owner of " + parent.string(), errno) + ".");
	}
}

/** Also when it is there: a publisher may have been killed before it gave the directory away. */
void MakeDirectory(const std::string& directory) {
	constexpr mode_t kMode = 0700;
	if (mkdir(directory.c_str(), kMode) != 0 && errno != EEXIST) {
		throw PublishError(ErrnoText(directory + " could not be created", errno) + ".");
	}
	if (geteuid() == 0) {
		GiveToOwnerOf(fs::path(directory).parent_path(), directory);
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

void MarkWithdrawn(const std::string& package, int withdrawal) {
	const std::string kept = WithdrawnPath(package);
	MakeDirectory(fs::path(kept).parent_path().string());
	ReplacingFile(kept + kMark + std::to_string(withdrawal)).Commit();
}

std::set<std::string> MarkedPackages(const std::string& directory, int newest) {
	std::set<std::string> names;
	for (const Mark& mark : MarksIn(WithdrawnDirectory(directory))) {
		if (IsPublished(mark, newest)) {
			names.insert(mark.package);
		}
	}
	return names;
}

void MoveWithdrawn(const std::string& directory, const std::set<std::string>& offered, int newest) {
	const std::string withdrawn = WithdrawnDirectory(directory);
	RemoveLeftovers(withdrawn);
	try {
		for (const Mark& mark : MarksIn(withdrawn)) {
			Follow(mark, directory, offered, newest);
		}
	} catch (const fs::filesystem_error& error) {
		throw PublishError("Withdrawn packages cannot be moved to " + withdrawn + ": " + error.code().message() + ".");
	}
}

} // namespace tarn::publisher
