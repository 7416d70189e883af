#include "decoder/bytes.h"

#include "base/text.h"

#include <algorithm>
#include <new>
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

ContentHash::ContentHash() : state_(XXH3_createState()) {
	if (!state_ || XXH3_128bits_reset(state_.get()) != XXH_OK) {
		throw std::bad_alloc();
	}
}

void ContentHash::Update(const Byte* from, std::size_t length) {
	// It fails for a null pointer only, which may come with no bytes at all.
	if (length > 0) {
		XXH3_128bits_update(state_.get(), from, length);
	}
}

std::string ContentHash::Hex() const {
	XXH128_canonical_t canonical;
	XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_.get()));
	return tarn::Hex(canonical.digest, sizeof canonical.digest);
}

} // namespace tarn::decoder
