/** @file SHA-256 of bytes that come piece by piece. */
#ifndef KIT_SHA256_H
#define KIT_SHA256_H

#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace tarn::kit {

/** The digits of a digest. */
constexpr std::size_t kDigestDigits = 64;

/** Takes bytes and tells their digest in the end. Failures are Error. */
class Sha256 {
public:
	Sha256();

	void Add(std::string_view bytes);
	/** 64 lower-case hexadecimal digits; to be called once. */
	[[nodiscard]] std::string Finish();

private:
	struct Closer {
		void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
	};
	std::unique_ptr<EVP_MD_CTX, Closer> context_;
};

} // namespace tarn::kit

#endif
