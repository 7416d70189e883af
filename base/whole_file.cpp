#include "base/whole_file.h"

#include "base/error.h"

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

constexpr char kSuffix[] = ".tmp";
constexpr mode_t kMode = 0644;

/** A new file beside a path, removed again unless it has taken the path's place. */
class Draft {
public:
	explicit Draft(const std::filesystem::path& path)
	    : path_(path), name_(path.parent_path() / ("." + path.filename().string() + ".XXXXXX" + kSuffix)) {
		fd_ = mkostemps(name_.data(), static_cast<int>(std::strlen(kSuffix)), O_CLOEXEC);
		Check(fd_ >= 0);
	}
	~Draft() {
		if (fd_ >= 0) {
			close(fd_);
		}
		if (!name_.empty()) {
			unlink(name_.c_str());
		}
	}
	Draft(const Draft&) = delete;
	Draft& operator=(const Draft&) = delete;

	void Write(const std::string& content) {
		for (size_t done = 0; done < content.size();) {
			const ssize_t count = write(fd_, content.data() + done, content.size() - done);
			Check(count >= 0 || errno == EINTR);
			done += count > 0 ? static_cast<size_t>(count) : 0;
		}
	}
	void TakePlace() {
		Check(fchmod(fd_, kMode) == 0 && fsync(fd_) == 0 && std::rename(name_.c_str(), path_.c_str()) == 0);
		name_.clear();
	}

private:
	void Check(bool good) const {
		if (!good) {
			throw Error("The file " + path_ + " cannot be written (" + std::strerror(errno) + ")");
		}
	}

	std::string path_;
	std::string name_;
	int fd_ = -1;
};

} // namespace

void WriteWholeFile(const std::string& path, const std::string& content) {
	Draft draft(path);
	draft.Write(content);
	draft.TakePlace();
}

} // namespace tarn
