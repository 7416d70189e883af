#include "archive/signing_key.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <iomanip>
#include <sstream>

namespace tarn::archive {

namespace {

constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kPublicMode = 0644;

template<typename Writer>
std::string ToPem(const Writer& write) {
	const BioHandle bio(BIO_new(BIO_s_mem()));
	if (!bio || write(bio.get()) != 1) {
		ERR_clear_error();
		throw Error("A key could not be written in PEM form.");
	}
	const char* data = nullptr;
	const auto size = BIO_get_mem_data(bio.get(), &data);
	return {data, static_cast<std::size_t>(size)};
}

Draft CreateKeyFile(const std::string& path, mode_t mode) {
	Draft file = CreateDraft(path, mode);
	if (!file) {
		throw Error(errno == EEXIST
		                ? path + " exists already and is not overwritten; choose another prefix or move it away."
		                : ErrnoText(path + " could not be created", errno) + ".");
	}
	return file;
}

void WriteKeyFile(const Draft& file, const std::string& content, mode_t mode) {
	WriteFully(file.Fd(), content.data(), content.size(), file.Name());
	if (fchmod(file.Fd(), mode) != 0 || fsync(file.Fd()) != 0) {
		throw Error(ErrnoText(file.Name() + " could not be written", errno) + ".");
	}
}

void WarnOfOthers(int fd, const std::string& path, const std::function<void(const std::string&)>& warn) {
	struct stat status {};
	RequireCall(fstat(fd, &status) == 0, "cannot get status");
	constexpr mode_t kOfOthers = 077;
	if ((status.st_mode & kOfOthers) != 0) {
		std::ostringstream mode;
		mode << std::oct << std::setw(4) << std::setfill('0') << (status.st_mode & 07777U);
		warn("Others than its owner may read or change the private key " + path + " (mode " + mode.str() +
		     "), and whoever has it publishes to every device: chmod 600 it, and rotate it if somebody has read it.");
	}
}

} // namespace

SigningKey SigningKey::Generate() {
	KeyHandle key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
	if (!key) {
		ERR_clear_error();
		throw Error("A key could not be generated.");
	}
	return SigningKey(std::move(key));
}

SigningKey SigningKey::Load(const std::string& path, const std::function<void(const std::string&)>& warn) {
	try {
		// Unlike an archive a key may well be reached by a link, so that only the size is limited.
		const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
		RequireCall(static_cast<bool>(fd), "cannot be opened");
		KeyHandle key = ReadPrivatePem(ReadSmallFile(fd.Get(), kMaxKeyFileSize, "it"));
		WarnOfOthers(fd.Get(), path, warn);
		return SigningKey(std::move(key));
	} catch (const Error& error) {
		throw Error("The signing key " + path + " cannot be used: it " + error.what() + ".");
	}
}

Signature SigningKey::Sign(std::string_view message) const {
	const DigestHandle context(EVP_MD_CTX_new());
	Signature signature{};
	std::size_t size = signature.size();
	const auto* bytes = reinterpret_cast<const unsigned char*>(message.data());
	if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
	    EVP_DigestSign(context.get(), signature.data(), &size, bytes, message.size()) != 1 ||
	    size != signature.size()) {
		ERR_clear_error();
		throw Error("The package could not be signed.");
	}
	return signature;
}

std::string SigningKey::PrivatePem() const {
	return ToPem([this](BIO* bio) {
		return PEM_write_bio_PKCS8PrivateKey(bio, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
	});
}

std::string SigningKey::PublicPem() const {
	return ToPem([this](BIO* bio) { return PEM_write_bio_PUBKEY(bio, key_.get()); });
}

std::string GenerateKeyFiles(const std::string& prefix) {
	const SigningKey key = SigningKey::Generate();
	Draft private_file = CreateKeyFile(prefix + ".key", kPrivateMode);
	Draft public_file = CreateKeyFile(prefix + ".pub", kPublicMode);
	WriteKeyFile(private_file, key.PrivatePem(), kPrivateMode);
	WriteKeyFile(public_file, key.PublicPem(), kPublicMode);
	private_file.Keep();
	public_file.Keep();
	return PublicKey::FromPem(key.PublicPem()).Fingerprint();
}

} // namespace tarn::archive
