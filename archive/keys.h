/** @file Ed25519 keys that verify, from PEM text and from files, by OpenSSL. */
#ifndef ARCHIVE_KEYS_H
#define ARCHIVE_KEYS_H

#include "archive/head.h"
#include "base/handle.h"

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

using KeyHandle = Handle<EVP_PKEY, EVP_PKEY_free>;
using BioHandle = Handle<BIO, BIO_free>;
using DigestHandle = Handle<EVP_MD_CTX, EVP_MD_CTX_free>;

constexpr std::size_t kMaxKeyFileSize = 64U << 10U;

class PublicKey {
public:
	/** Reads PEM ("PUBLIC KEY"); throws Error when it holds no Ed25519 key. */
	[[nodiscard]] static PublicKey FromPem(std::string_view pem);

	[[nodiscard]] bool Verify(std::string_view message, const Signature& signature) const;
	/** SHA-256 of the 32 key bytes in hexadecimal. */
	std::string Fingerprint() const;

private:
	explicit PublicKey(KeyHandle key) : key_(std::move(key)) {}
	KeyHandle key_;
};

/** Reads PEM ("PRIVATE KEY") without a passphrase; throws Error when it holds no Ed25519 key. */
[[nodiscard]] KeyHandle ReadPrivatePem(std::string_view pem);

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
 * written is skipped with a warning in the log: one bad file must not take the good keys out of service. Throws Error
 * when the directory cannot be read, or others could put keys into it.
 */
[[nodiscard]] std::vector<TrustedKey> LoadTrustedKeys(
    const std::string& directory, const NoteSkipped& note = [](const std::string&, const std::string&) {});

/** Reads one public key file, whoever may write it. */
[[nodiscard]] TrustedKey LoadPublicKeyFile(const std::string& path);

} // namespace tarn::archive

#endif
