#ifndef TARNDBUDVCDIFF_UNIQUE_FD_H
#define TARNDBUDVCDIFF_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace tarn::vcdiff {

/** Owns a file descriptor. */
class UniqueFd {
public:
	explicit UniqueFd(int fd = -1) : fd_(fd) {}
	UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
	UniqueFd& operator=(UniqueFd&& other) noexcept {
		std::swap(fd_, other.fd_);
		return *this;
	}
	UniqueFd(const UniqueFd&) = delete;
	UniqueFd& operator=(const UniqueFd&) = delete;
	~UniqueFd() {
		if (fd_ >= 0) {
			close(fd_);
		}
	}

	int Get() const { return fd_; }
	explicit operator bool() const { return fd_ >= 0; }

private:
	int fd_;
};

} // namespace tarn::vcdiff

#endif
