#include "publisher/repository/repository_listing.h"

#include "base/text.h"
#include "base/unique_fd.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/withdrawn_packages.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <utility>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

bool IsTemporary(const fs::path& path) {
	return StartsWith(path.filename().string(), kTemporaryPrefix);
}

/** Shares the repository's lock; no descriptor when no publisher was ever there. */
UniqueFd ShareLock(const std::string& directory, bool& is_publishing) {
	const std::string path = directory + "/" + kLockName;
	UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
	if (!fd && errno != ENOENT) {
		throw PublishError(ErrnoText("The lock " + path + " cannot be opened", errno) + ".");
	}
	is_publishing = fd && flock(fd.Get(), LOCK_SH | LOCK_NB) != 0;
	return fd;
}

/** The steps of ListRepository(). */
class Listing {
public:
	explicit Listing(std::string directory) : directory_(std::move(directory)) {}

	RepositoryListing Run() {
		const UniqueFd lock = ShareLock(directory_, result_.is_publishing);
		result_.leftovers = Leftovers(directory_);
		ForEachVisible("/database_info", [this](const fs::path& path) { ReadDocument(path); });
		ForEachVisible("/packages", [this](const fs::path& path) { ListPackages(path); });
		return std::move(result_);
	}

private:
	template<typename Take>
	void ForEachVisible(const char* name, const Take& take) {
		for (const fs::path& path : PathsIn(directory_ + name)) {
			if (IsTemporary(path)) {
				result_.leftovers.push_back(path.string());
			} else if (path.filename().string().front() != '.') {
				take(path);
			}
		}
	}

	void ReadDocument(const fs::path& path) {
		const std::string name = path.filename().string();
		try {
			result_.documents.emplace(name, Document(path.string()));
		} catch (const PublishError& error) {
			result_.damaged[name] = WithoutEnd(error.what(), ". ");
		}
	}

	void ListPackages(const fs::path& directory) {
		if (!fs::is_directory(directory)) {
			result_.strangers.push_back(directory.string());
			return;
		}
		const std::string id = directory.filename().string();
		std::set<std::string> in_place;
		for (const PackageFile& file : PackagesIn(directory.string(), id)) {
			if (IsInPlace(file, id)) {
				result_.packages[id].push_back(file);
				in_place.insert(file.path);
			}
		}
		const std::string withdrawn = WithdrawnDirectory(directory.string());
		ListWithdrawn(withdrawn, id);
		for (const fs::path& path : PathsIn(directory.string())) {
			const bool is_withdrawn = path.string() == withdrawn;
			if (in_place.count(path.string()) == 0 && !is_withdrawn) {
				(IsTemporary(path) ? result_.leftovers : result_.strangers).push_back(path.string());
			}
		}
	}

	/** Only its owner may enter the directory, so that for a monitor of another user nothing lies there. */
	void ListWithdrawn(const std::string& withdrawn, const std::string& id) {
		if (access(withdrawn.c_str(), R_OK | X_OK) == 0 || errno != EACCES) {
			const std::vector<std::string> leftovers = Leftovers(withdrawn);
			result_.leftovers.insert(result_.leftovers.end(), leftovers.begin(), leftovers.end());
			result_.withdrawn[id] = PackagesIn(withdrawn, id);
		}
	}

	/** Whether the name is the one that documents link to, and not "db_v007.tarn". */
	bool IsInPlace(const PackageFile& file, const std::string& id) const {
		return fs::path(file.path) == fs::path(directory_ + "/" + Repository::NameOf(id, file));
	}

	std::string directory_;
	RepositoryListing result_;
};

} // namespace

RepositoryListing ListRepository(const std::string& directory) {
	return Listing(directory).Run();
}

} // namespace tarn::publisher
