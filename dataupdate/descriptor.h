/**
 * @file
 * An open file that closes itself.
 */
#ifndef DATAUPDATE_DESCRIPTOR_H
#define DATAUPDATE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace tarn::dataupdate {

class Descriptor {
public:
	/** Takes over what open() returned, which may be -1. */
	explicit Descriptor(int fd) : fd_(fd) {}
	~Descriptor() {
		if (fd_ >= 0) {
			close(fd_);
		}
	}
	Descriptor(const Descriptor&) = delete;
	Descriptor& operator=(const Descriptor&) = delete;

	[[nodiscard]] int Get() const { return fd_; }
	/** Closes and tells whether that succeeded: some file systems report a failed write only now. */
	[[nodiscard]] bool Close() { return close(std::exchange(fd_, -1)) == 0; }

private:
	int fd_;
};

} // namespace tarn::dataupdate

#endif
