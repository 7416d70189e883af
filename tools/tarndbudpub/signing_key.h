#ifndef TARNDBUDPUB_SIGNING_KEY_H
#define TARNDBUDPUB_SIGNING_KEY_H

#include "tarncodesign/ed25519.h"

#include <string>
#include <string_view>

namespace tarn::publisher {

/** An Ed25519 key that signs. */
class SigningKey {
public:
	static SigningKey Generate();
	/** Reads a PKCS#8 PEM file without a passphrase; throws PublishError. */
	static SigningKey Load(const std::string& path);

	codesign::Signature Sign(std::string_view message) const;
	std::string PrivatePem() const;
	std::string PublicPem() const;

private:
	explicit SigningKey(codesign::KeyHandle key) : key_(std::move(key)) {}
	codesign::KeyHandle key_;
};

/**
 * Writes a new key pair to PREFIX.key (mode 0600) and PREFIX.pub; never over a file that exists.
 *
 * @return the public key's fingerprint
 * @throws PublishError
 */
std::string GenerateKeyFiles(const std::string& prefix);

} // namespace tarn::publisher

#endif
