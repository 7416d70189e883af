#include "decoder/content_hash.h"

#if defined(__x86_64__)
#include <xxh_x86dispatch.h> // The widest instructions that the processor has; else it is those that all have.
#endif

#include <new>

namespace tarn::vcdiff {

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
	constexpr char kDigits[] = "0123456789abcdef";
	constexpr unsigned kDigitBits = 4;
	constexpr unsigned kDigitMask = 0xf;
	XXH128_canonical_t canonical;
	XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_.get()));
	std::string text;
	for (const unsigned char byte : canonical.digest) {
		text += kDigits[byte >> kDigitBits];
		text += kDigits[byte & kDigitMask];
	}
	return text;
}

} // namespace tarn::vcdiff
