/** @file Private keys: making, reading and signing. */
#ifndef ARCHIVE_SIGNING_KEY_H
#define ARCHIVE_SIGNING_KEY_H

#include "archive/keys.h"

#include <functional>
#include <string>
#include <string_view>

namespace tarn::archive {

class SigningKey {
public:
	[[nodiscard]] static SigningKey Generate();
	/**
	 * Reads a PKCS#8 PEM file without a passphrase; throws Error.
	 *
	 * @param warn  gets a sentence when others than the file's owner have any right to it
	 */
	[[nodiscard]] static SigningKey Load(
	    const std::string& path, const std::function<void(const std::string& sentence)>& warn = [](const auto&) {});

	[[nodiscard]] Signature Sign(std::string_view message) const;
	std::string PrivatePem() const;
	std::string PublicPem() const;

private:
	explicit SigningKey(KeyHandle key) : key_(std::move(key)) {}
	KeyHandle key_;
};

/**
 * Writes a new key pair to PREFIX.key (mode 0600) and PREFIX.pub; never over a file that exists. Returns the public
 * key's fingerprint, or throws Error.
 */
std::string GenerateKeyFiles(const std::string& prefix);

} // namespace tarn::archive

#endif
