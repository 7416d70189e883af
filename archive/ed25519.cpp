#include "archive/ed25519.h"

#include "base/error.h"
#include "base/text.h"

#include <openssl/err.h>
#include <openssl/pem.h>

namespace tarn::archive {

namespace {

// Without a callback of our own OpenSSL would ask for a passphrase on the terminal.
int RefusePassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
	return -1;
}

using PemReader = EVP_PKEY* (*)(BIO*, EVP_PKEY**, pem_password_cb*, void*);

KeyHandle ReadPem(std::string_view pem, PemReader read) {
	const BioHandle bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
	if (!bio) {
		throw Error("no memory to read a key");
	}
	KeyHandle key(read(bio.get(), nullptr, RefusePassphrase, nullptr));
	ERR_clear_error();
	return key;
}

} // namespace

KeyHandle ReadPublicPem(std::string_view pem) {
	return ReadPem(pem, PEM_read_bio_PUBKEY);
}

KeyHandle ReadPrivatePem(std::string_view pem) {
	return ReadPem(pem, PEM_read_bio_PrivateKey);
}

void RequireEd25519(const KeyHandle& key) {
	if (!key) {
		throw Error("holds no key in PEM form that can be read without a passphrase");
	}
	if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519) {
		throw Error("holds a key of another kind than Ed25519");
	}
}

PublicKey PublicKey::FromPem(std::string_view pem) {
	KeyHandle key = ReadPublicPem(pem);
	RequireEd25519(key);
	return PublicKey(std::move(key));
}

bool PublicKey::Verify(std::string_view message, const Signature& signature) const {
	const DigestHandle context(EVP_MD_CTX_new());
	if (!context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key_.get()) != 1) {
		ERR_clear_error();
		throw Error("cannot start a signature check");
	}
	const auto* bytes = reinterpret_cast<const unsigned char*>(message.data());
	const int result = EVP_DigestVerify(context.get(), signature.data(), signature.size(), bytes, message.size());
	ERR_clear_error();
	return result == 1;
}

std::string PublicKey::Fingerprint() const {
	Digest raw{};
	std::size_t size = raw.size();
	if (EVP_PKEY_get_raw_public_key(key_.get(), raw.data(), &size) != 1 || size != raw.size()) {
		throw Error("cannot read a public key's bytes");
	}
	const Digest digest = Sha256(raw.data(), raw.size());
	return Hex(digest.data(), digest.size());
}

Digest Sha256(const void* data, std::size_t size) {
	Digest digest{};
	if (EVP_Digest(data, size, digest.data(), nullptr, EVP_sha256(), nullptr) != 1) {
		ERR_clear_error();
		throw Error("cannot compute a SHA-256 digest");
	}
	return digest;
}

} // namespace tarn::archive
