/** @file Public keys from files. */
#ifndef ARCHIVE_KEYS_H
#define ARCHIVE_KEYS_H

#include "archive/ed25519.h"

#include <string>
#include <vector>

namespace tarn::archive {

struct TrustedKey {
	std::string name;
	PublicKey key;
};

/**
 * Reads every "*.pub" file of a directory, in name order.
 *
 * A file that is no Ed25519 key in PEM, no regular file, or that others than root and this process's user could have
 * written is skipped with a warning in the log: one bad file must not take the good keys out of service.
 *
 * @throws Error when the directory cannot be read, or others could put keys into it
 */
[[nodiscard]] std::vector<TrustedKey> LoadTrustedKeys(const std::string& directory);

/** Reads one public key file, whoever may write it. */
[[nodiscard]] TrustedKey LoadPublicKeyFile(const std::string& path);

} // namespace tarn::archive

#endif
