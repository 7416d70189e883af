/**
 * @file
 * A file descriptor that closes itself: for the library, the platform and the decoder, which must not know one another.
 */
#ifndef BASE_UNIQUE_FD_H
#define BASE_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace tarn {

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

	/** Closes and tells whether that succeeded: some file systems report a failed write only now. */
	[[nodiscard]] bool Close() { return close(std::exchange(fd_, -1)) == 0; }

	void Reset() {
		if (fd_ >= 0) {
			close(std::exchange(fd_, -1));
		}
	}

private:
	int fd_ = -1;
};

} // namespace tarn

#endif
