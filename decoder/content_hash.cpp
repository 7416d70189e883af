#include "decoder/content_hash.h"

#include "base/text.h"

#if defined(__x86_64__)
#include <xxh_x86dispatch.h> // The widest instructions that the processor has; else it is those that all have.
#endif

#include <new>

namespace tarn::decoder {

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
