#ifndef TARNCODESIGN_UNIQUE_FD_H
#define TARNCODESIGN_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace tarn::codesign {

/** Owns one file descriptor. */
class UniqueFd {
public:
	UniqueFd() = default;
	explicit UniqueFd(int fd) : fd_(fd) {}
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
	/** Hands the descriptor over, for the callers that must see what close() says. */
	int Release() { return std::exchange(fd_, -1); }

private:
	int fd_ = -1;
};

} // namespace tarn::codesign

#endif
