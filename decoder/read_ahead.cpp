#include "decoder/read_ahead.h"

#include <algorithm>
#include <cstring>

namespace tarn::decoder {

namespace {

constexpr std::size_t kFirstStep = 4096;
// From here on the call costs less than the second copy.
constexpr std::size_t kDirectRead = 8192;

} // namespace

ReadAhead::ReadAhead(const ReadableBytes& bytes, std::size_t buffer_size)
    : bytes_(bytes),
      buffer_size_(buffer_size),
      buffer_(new Byte[buffer_size]),
      step_(std::min(buffer_size, kFirstStep)) {}

void ReadAhead::Read(std::uint64_t offset, Byte* to, std::size_t length) {
	while (length > 0) {
		if (!Holds(offset)) {
			if (length >= std::min(buffer_size_, kDirectRead)) {
				bytes_.ReadAt(offset, to, length);
				last_end_ = offset + length;
				return;
			}
			Fill(offset);
		}
		const auto at = static_cast<std::size_t>(offset - begin_);
		const std::size_t part = std::min(length, used_ - at);
		std::memcpy(to, buffer_.get() + at, part);
		to += part;
		offset += part;
		length -= part;
		last_end_ = offset;
	}
}

void ReadAhead::Fill(std::uint64_t offset) {
	const bool goes_on = offset >= last_end_ && offset - last_end_ <= step_;
	step_ = std::min(buffer_size_, goes_on ? 2 * step_ : kFirstStep);
	used_ = 0; // nothing is held if the read fails
	const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(step_, bytes_.Size() - offset));
	bytes_.ReadAt(offset, buffer_.get(), wanted);
	begin_ = offset;
	used_ = wanted;
}

} // namespace tarn::decoder
