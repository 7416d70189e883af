#include "decoder/bytes.h"

#include <algorithm>
#include <utility>

namespace tarn::decoder {

MemoryBytes::MemoryBytes(std::string name, std::vector<Byte> content)
    : name_(std::move(name)), content_(std::move(content)) {}

void MemoryBytes::ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const {
	if (offset > content_.size() || length > content_.size() - offset) {
		throw DecodeError(name_ + " ends before byte " + std::to_string(offset) + ".");
	}
	std::copy_n(content_.begin() + static_cast<std::ptrdiff_t>(offset), length, to);
}

void MemoryBytes::Append(const Byte* from, std::size_t length) {
	content_.insert(content_.end(), from, from + length);
}

} // namespace tarn::decoder
