/** @file The hash of a whole content. */
#ifndef DECODER_CONTENT_HASH_H
#define DECODER_CONTENT_HASH_H

#include "decoder/bytes.h"

#include <xxhash.h>

#include <memory>
#include <string>

namespace tarn::decoder {

/** XXH3-128 over bytes that come piece by piece. */
class ContentHash {
public:
	ContentHash();

	void Update(const Byte* from, std::size_t length);
	/** 32 lower-case hexadecimal digits, most significant first. */
	std::string Hex() const;

private:
	struct FreeState {
		void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
	};

	std::unique_ptr<XXH3_state_t, FreeState> state_;
};

} // namespace tarn::decoder

#endif
