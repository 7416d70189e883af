/** @file Ed25519 keys that verify, from PEM text and from files, by OpenSSL. */
#ifndef ARCHIVE_KEYS_H
#define ARCHIVE_KEYS_H

#include "archive/head.h"

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

struct OpensslDeleter {
	void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
	void operator()(BIO* bio) const { BIO_free(bio); }
	void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using KeyHandle = std::unique_ptr<EVP_PKEY, OpensslDeleter>;
using BioHandle = std::unique_ptr<BIO, OpensslDeleter>;
using DigestHandle = std::unique_ptr<EVP_MD_CTX, OpensslDeleter>;

constexpr std::size_t kMaxKeyFileSize = 64U << 10U;

/** An Ed25519 key that verifies. */
class PublicKey {
public:
	/** Reads PEM ("PUBLIC KEY"); throws Error when it holds no Ed25519 key. */
	[[nodiscard]] static PublicKey FromPem(std::string_view pem);

	/** Whether the signature is this key's over the message. */
	[[nodiscard]] bool Verify(std::string_view message, const Signature& signature) const;
	/** SHA-256 of the 32 key bytes in hexadecimal. */
	std::string Fingerprint() const;

private:
	explicit PublicKey(KeyHandle key) : key_(std::move(key)) {}
	KeyHandle key_;
};

[[nodiscard]] KeyHandle ReadPrivatePem(std::string_view pem);

/** Throws Error unless the handle holds an Ed25519 key. */
void RequireEd25519(const KeyHandle& key);

struct TrustedKey {
	std::string name;
	PublicKey key;
};

/** Learns of a file of the directory that was skipped, and why. */
using NoteSkipped = std::function<void(const std::string& name, const std::string& reason)>;

/**
 * Reads every "*.pub" file of a directory, in name order.
 *
 * A file that is no Ed25519 key in PEM, no regular file, or that others than root and this process's user could have
 * written is skipped with a warning in the log: one bad file must not take the good keys out of service.
 *
 * @throws Error when the directory cannot be read, or others could put keys into it
 */
[[nodiscard]] std::vector<TrustedKey> LoadTrustedKeys(
    const std::string& directory, const NoteSkipped& note = [](const std::string&, const std::string&) {});

/** Reads one public key file, whoever may write it. */
[[nodiscard]] TrustedKey LoadPublicKeyFile(const std::string& path);

} // namespace tarn::archive

#endif
