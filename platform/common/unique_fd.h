/** @file A file descriptor that closes itself. */
#ifndef TARN_PLATFORM_UNIQUE_FD_H
#define TARN_PLATFORM_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace tarn::process {

/** Owns one descriptor; -1 means none. */
class UniqueFd {
public:
	UniqueFd() = default;
	explicit UniqueFd(int fd) : fd_(fd) {}
	UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
	UniqueFd& operator=(UniqueFd&& other) noexcept {
		if (this != &other) {
			Reset();
			fd_ = std::exchange(other.fd_, -1);
		}
		return *this;
	}
	UniqueFd(const UniqueFd&) = delete;
	UniqueFd& operator=(const UniqueFd&) = delete;
	~UniqueFd() { Reset(); }

	int Get() const { return fd_; }
	explicit operator bool() const { return fd_ >= 0; }

	/** Gives the descriptor up to a new owner. */
	int Release() { return std::exchange(fd_, -1); }

	void Reset() {
		if (fd_ >= 0) {
			close(std::exchange(fd_, -1));
		}
	}

private:
	int fd_ = -1;
};

} // namespace tarn::process

#endif
