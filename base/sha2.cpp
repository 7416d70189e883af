#include "base/sha2.h"

#include "base/error.h"
#include "base/text.h"

#include <openssl/err.h>

namespace tarn {

namespace {

using AlgorithmHandle = Handle<EVP_MD, EVP_MD_free>;

template<std::size_t kBytes>
constexpr const char* kName = kBytes == sizeof(Sha256::Digest) ? "SHA-256" : "SHA-384";

void RequireDone(bool is_done, const char* algorithm) {
	if (!is_done) {
		ERR_clear_error();
		throw Error(std::string("has no digest, since OpenSSL refuses ") + algorithm);
	}
}

AlgorithmHandle Fetch(const char* name) {
	AlgorithmHandle algorithm(EVP_MD_fetch(nullptr, name, nullptr));
	RequireDone(algorithm != nullptr, name);
	return algorithm;
}

/** Kept, since finding an algorithm by its name takes as long as the digest of a small file. */
template<std::size_t kBytes>
const EVP_MD* Algorithm() {
	static const AlgorithmHandle kept = Fetch(kName<kBytes>);
	return kept.get();
}

} // namespace

template<std::size_t kBytes>
Sha2<kBytes>::Sha2() : context_(EVP_MD_CTX_new()) {
	RequireDone(context_ && EVP_DigestInit_ex(context_.get(), Algorithm<kBytes>(), nullptr) == 1, kName<kBytes>);
}

template<std::size_t kBytes>
void Sha2<kBytes>::Add(std::string_view bytes) {
	RequireDone(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1, kName<kBytes>);
}

template<std::size_t kBytes>
typename Sha2<kBytes>::Digest Sha2<kBytes>::Finish() {
	Digest digest{};
	RequireDone(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1, kName<kBytes>);
	return digest;
}

template<std::size_t kBytes>
std::string Sha2<kBytes>::FinishHex() {
	const Digest digest = Finish();
	return Hex(digest.data(), digest.size());
}

template<std::size_t kBytes>
typename Sha2<kBytes>::Digest Sha2<kBytes>::Of(std::string_view bytes) {
	Sha2 digest;
	digest.Add(bytes);
	return digest.Finish();
}

template class Sha2<32>;
template class Sha2<48>;

} // namespace tarn
