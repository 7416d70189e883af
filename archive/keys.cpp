#include "archive/keys.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/sha2.h"
#include "base/text.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

namespace tarn::archive {

namespace {

// Without a callback of our own OpenSSL would ask for a passphrase on the terminal.
int RefusePassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
	return -1;
}

using PemReader = EVP_PKEY* (*)(BIO*, EVP_PKEY**, pem_password_cb*, void*);

/** Reads an Ed25519 key by one of OpenSSL's readers; never asks for a passphrase. */
KeyHandle ReadPem(std::string_view pem, PemReader read) {
	const BioHandle bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
	Require(bio != nullptr, "no memory to read a key");
	KeyHandle key(read(bio.get(), nullptr, RefusePassphrase, nullptr));
	ERR_clear_error();
	Require(key != nullptr, "holds no key in PEM form that can be read without a passphrase");
	Require(EVP_PKEY_get_base_id(key.get()) == EVP_PKEY_ED25519, "holds a key of another kind than Ed25519");
	return key;
}

// Whoever can write a key, or the directory of keys, decides what is installed.
void RequireGuarded(int fd, const std::string& what) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		ThrowErrno("cannot get status of " + what);
	}
	if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
		throw Error(what + " can be written by its group or by others");
	}
	if (status.st_uid != 0 && status.st_uid != geteuid()) {
		throw Error(what + " belongs to another user");
	}
}

bool IsKeyFileName(const std::string& name) {
	constexpr std::string_view kSuffix = ".pub";
	return name.size() > kSuffix.size() && EndsWith(name, kSuffix);
}

std::vector<std::string> KeyFileNames(int directory_fd, const std::string& directory) {
	UniqueFd copy(fcntl(directory_fd, F_DUPFD_CLOEXEC, 0));
	const Handle<DIR, closedir> stream(fdopendir(copy.Get()));
	if (!stream) {
		ThrowErrno("cannot read " + directory);
	}
	copy.Release(); // the stream closes it
	std::vector<std::string> names;
	errno = 0;
	while (const dirent* entry = readdir(stream.get())) {
		if (IsKeyFileName(entry->d_name)) {
			names.emplace_back(entry->d_name);
		}
		errno = 0;
	}
	if (errno != 0) {
		ThrowErrno("cannot read " + directory);
	}
	std::sort(names.begin(), names.end());
	return names;
}

PublicKey ReadGuardedKey(int directory_fd, const std::string& name) {
	const UniqueFd fd = OpenRegularFile(directory_fd, name);
	RequireGuarded(fd.Get(), "the file");
	return PublicKey::FromPem(ReadSmallFile(fd.Get(), kMaxKeyFileSize, "the file"));
}

/** As PublicKey::FromPem(), and tells a private key from what is no key at all. */
PublicKey ReadPublicOnly(const std::string& pem) {
	try {
		return PublicKey::FromPem(pem);
	} catch (const Error&) {
		if (pem.find("PRIVATE KEY-----") != std::string::npos) {
			throw Error("this is a private key; give the public one, whose name ends with .pub");
		}
		throw;
	}
}

} // namespace

KeyHandle ReadPrivatePem(std::string_view pem) {
	return ReadPem(pem, PEM_read_bio_PrivateKey);
}

PublicKey PublicKey::FromPem(std::string_view pem) {
	return PublicKey(ReadPem(pem, PEM_read_bio_PUBKEY));
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
	const bool is_read = EVP_PKEY_get_raw_public_key(key_.get(), raw.data(), &size) == 1 && size == raw.size();
	Require(is_read, "cannot read a public key's bytes");
	Sha256 digest;
	digest.Add({reinterpret_cast<const char*>(raw.data()), raw.size()});
	return digest.FinishHex();
}

std::vector<TrustedKey> LoadTrustedKeys(const std::string& directory, const NoteSkipped& note) {
	const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
	if (!fd) {
		ThrowErrno("cannot read the directory of trusted keys, " + directory);
	}
	RequireGuarded(fd.Get(), "the directory of trusted keys, " + directory + ",");
	std::vector<TrustedKey> keys;
	for (const std::string& name : KeyFileNames(fd.Get(), directory)) {
		try {
			keys.push_back({name, ReadGuardedKey(fd.Get(), name)});
		} catch (const Error& error) {
			const std::string shown = Printable(name);
			syslog(LOG_WARNING, "tarncodesign: %s/%s: skipped: %s", directory.c_str(), shown.c_str(), error.what());
			note(shown, error.what());
		}
	}
	return keys;
}

TrustedKey LoadPublicKeyFile(const std::string& path) {
	try {
		const UniqueFd fd = OpenRegularFile(AT_FDCWD, path);
		return {path, ReadPublicOnly(ReadSmallFile(fd.Get(), kMaxKeyFileSize, "it"))};
	} catch (const Error& error) {
		throw Error(path + ": " + error.what());
	}
}

} // namespace tarn::archive
