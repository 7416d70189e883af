#include "kit/sha256.h"

#include "base/error.h"
#include "base/text.h"

#include <array>

namespace tarn::kit {

namespace {

constexpr char kNoDigest[] = "has no digest, since OpenSSL refuses SHA-256";

} // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
	Require(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1, kNoDigest);
}

void Sha256::Add(std::string_view bytes) {
	Require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1, kNoDigest);
}

std::string Sha256::Finish() {
	std::array<unsigned char, kDigestDigits / 2> digest{};
	Require(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1, kNoDigest);
	return Hex(digest.data(), digest.size());
}

} // namespace tarn::kit
