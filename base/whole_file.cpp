#include "base/whole_file.h"

#include "base/error.h"
#include "base/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace tarn {
namespace {

Draft CreateBeside(const std::filesystem::path& path) {
	constexpr char kSuffix[] = ".tmp";
	std::string name = path.parent_path() / ("." + path.filename().string() + ".XXXXXX" + kSuffix);
	UniqueFd fd(mkostemps(name.data(), static_cast<int>(std::strlen(kSuffix)), O_CLOEXEC));
	return {std::move(fd), name};
}

} // namespace

Draft& Draft::operator=(Draft&& other) noexcept {
	std::swap(fd_, other.fd_);
	std::swap(name_, other.name_);
	return *this;
}

Draft::~Draft() {
	if (fd_ && !name_.empty()) {
		unlink(name_.c_str());
	}
}

bool Draft::TakePlace(const std::string& path) {
	if (std::rename(name_.c_str(), path.c_str()) != 0) {
		return false;
	}
	Keep();
	return true;
}

Draft CreateDraft(const std::string& name, mode_t mode) {
	return {UniqueFd(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode)), name};
}

bool SyncDirectory(const std::string& path) {
	const UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	return directory && fsync(directory.Get()) == 0;
}

void WriteWholeFile(const std::string& path, const std::string& content) {
	constexpr mode_t kMode = 0644;
	Draft draft = CreateBeside(path);
	const bool is_written = draft && WriteAll(draft.Fd(), content.data(), content.size()) &&
	                        fchmod(draft.Fd(), kMode) == 0 && fsync(draft.Fd()) == 0 && draft.TakePlace(path);
	if (!is_written) {
		throw Error("The file " + path + " cannot be written (" + std::strerror(errno) + ")");
	}
}

} // namespace tarn
