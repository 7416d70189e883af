#include "dataupdate/internal/digest_stream.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/sha2.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace tarn::dataupdate {

namespace {

constexpr std::size_t kBlockBytes = 256UL * 1024;
constexpr std::size_t kLeastBlockBytes = 4UL * 1024;

void AddAll(std::istream& in, Sha384& digest) {
	std::array<char, 64UL * 1024> block; // NOLINT(cppcoreguidelines-pro-type-member-init): filled before it is used
	while (in.good()) {
		const std::streamsize count = in.readsome(block.data(), static_cast<std::streamsize>(block.size()));
		if (in.fail()) {
			throw UpdateError("Fail during reading for SHA digest");
		}
		if (count == 0) {
			break;
		}
		digest.Add({block.data(), static_cast<std::size_t>(count)});
	}
}

} // namespace

bool DigestBuffer::Open(const std::string& path) {
	// Non-blocking, so that a FIFO or device in a file's place is seen for what it is instead of hanging.
	fd_ = UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
	struct stat status {};
	if (!fd_ || fstat(fd_.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
		return false;
	}
	posix_fadvise(fd_.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
	// Cleared when it is made, which would take longer than to read a small file.
	block_.resize(std::clamp(static_cast<std::size_t>(status.st_size), kLeastBlockBytes, kBlockBytes));
	return true;
}

std::streamsize DigestBuffer::showmanyc() {
	if (underflow() == traits_type::eof()) {
		return -1;
	}
	return egptr() - gptr();
}

DigestBuffer::int_type DigestBuffer::underflow() {
	if (gptr() == egptr()) {
		InterruptionPoint(); // The stream takes it for a read error.
		if (is_unwanted_ != nullptr && *is_unwanted_) {
			throw std::system_error(ECANCELED, std::generic_category(), "read");
		}
		const ssize_t count = RetryOnInterrupt([this] { return read(fd_.Get(), block_.data(), block_.size()); });
		if (count < 0) {
			throw std::system_error(errno, std::generic_category(), "read");
		}
		AddHashedBytes(static_cast<std::uint64_t>(count));
		setg(block_.data(), block_.data(), block_.data() + count);
	}
	return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

DigestStream::DigestStream(const std::string& path, const std::atomic<bool>* is_unwanted)
    : std::istream(nullptr), buffer_(is_unwanted) {
	rdbuf(&buffer_);
	if (!buffer_.Open(path)) {
		setstate(failbit);
	}
}

std::string GetSha384(std::istream& in) {
	try {
		Sha384 digest;
		AddAll(in, digest);
		return digest.FinishHex();
	} catch (const Error& error) {
		throw UpdateError(std::string("A file ") + error.what());
	}
}

std::string FileSha384(const std::string& path) {
	const ActivityScope activity(Phase::kHash, path);
	DigestStream stream(path);
	return GetSha384(stream);
}

} // namespace tarn::dataupdate
