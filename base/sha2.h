/** @file SHA-256 and SHA-384 of bytes that come piece by piece. */
#ifndef BASE_SHA2_H
#define BASE_SHA2_H

#include "base/handle.h"

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace tarn {

/** Takes bytes and tells their digest, which has so many bytes. Failures are Error. */
template<std::size_t kBytes>
class Sha2 {
public:
	using Digest = std::array<unsigned char, kBytes>;
	/** Of a digest in hexadecimal. */
	static constexpr std::size_t kDigits = 2 * kBytes;

	Sha2();

	void Add(std::string_view bytes);
	/** To be called once, as the last. */
	[[nodiscard]] Digest Finish();
	/** Finish() in lower-case hexadecimal digits. */
	[[nodiscard]] std::string FinishHex();

	[[nodiscard]] static Digest Of(std::string_view bytes);

private:
	Handle<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

using Sha256 = Sha2<32>;
using Sha384 = Sha2<48>;

extern template class Sha2<32>;
extern template class Sha2<48>;

} // namespace tarn

#endif
