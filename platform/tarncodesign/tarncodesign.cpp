#include "archive/extractor.h"
#include "archive/head.h"
#include "archive/package_identity.h"
#include "base/error.h"
#include "base/file_io.h"
#include "base/mutex.h"

#include <tarncodesign/tarncodesign.h>

#include <fcntl.h>
#include <syslog.h>

#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>

struct tarnarchive {
	tarn::UniqueFd directory;
	std::string package;
	std::optional<tarn::archive::ArchiveFile> archive;
};

static_assert(TARNARCHIVE_KEYTYPE_DATA_UPDATE == tarn::archive::kDataUpdateKeyType);

namespace {

using tarn::Require;

/** Why a thread's last call failed. Of a fixed size, so that keeping a reason never fails itself. */
struct Refusal {
	tarnarchive_refusal_kind kind = TARNARCHIVE_NO_REFUSAL;
	std::array<char, 1024> reason{};
};

thread_local Refusal last_refusal;

void Refuse(tarnarchive_refusal_kind kind, const char* path, const char* reason) noexcept {
	last_refusal.kind = kind;
	std::snprintf(last_refusal.reason.data(), last_refusal.reason.size(), "%s", reason);
	syslog(LOG_ERR, "tarncodesign: %s: %s", path, reason);
}

/** Runs a function; whatever it throws becomes one line in the log, the thread's last refusal, and false. */
template<typename Function>
bool LoggingFailure(const char* path, const Function& function) noexcept {
	last_refusal = Refusal();
	try {
		function();
		return true;
	} catch (const tarn::archive::NotAskedFor& error) {
		Refuse(TARNARCHIVE_NOT_ASKED_FOR, path, error.what());
	} catch (const std::exception& error) {
		Refuse(TARNARCHIVE_REFUSED, path, error.what());
	} catch (...) {
		Refuse(TARNARCHIVE_REFUSED, path, "unknown error");
	}
	return false;
}

/** Who is told of opened packages; set and read by any thread. */
struct {
	tarn::Mutex mutex;
	tarnarchive_observer tell TARN_GUARDED_BY(mutex) = nullptr;
	void* data TARN_GUARDED_BY(mutex) = nullptr;
} the_observer;

/** Throws NotAskedFor with the reason when the observer does not want the package. */
void TellObserver(const char* package, const std::string& metadata) {
	const tarn::MutexLock guard(the_observer.mutex);
	const char* reason =
	    the_observer.tell == nullptr ? nullptr : the_observer.tell(the_observer.data, package, metadata.c_str());
	if (reason != nullptr) {
		throw tarn::archive::NotAskedFor(reason);
	}
}

/** A key with a slip in its permissions looks like a missing one, so the skipped files and the reasons are told. */
void CheckByInstalledKeys(const tarn::archive::ArchiveFile& archive, int key_type) {
	const std::string directory = "/usr/tarn/etc/codesign/" + std::to_string(key_type);
	std::string skipped;
	const auto keys =
	    tarn::archive::LoadTrustedKeys(directory, [&](const std::string& name, const std::string& reason) {
		    skipped += (skipped.empty() ? "; skipped in " + directory + ": " : ", ") + name + " (" + reason + ")";
	    });
	try {
		archive.Check(keys, static_cast<std::uint32_t>(key_type));
	} catch (const tarn::archive::NotTrusted& error) {
		throw tarn::Error(error.what() + skipped);
	}
}

std::vector<std::string> MemberList(const char* const* members) {
	std::vector<std::string> names;
	for (; members != nullptr && *members != nullptr; ++members) {
		names.emplace_back(*members);
	}
	return names;
}

} // namespace

struct tarnarchive* tarnarchive_init(const char* destination) {
	std::unique_ptr<tarnarchive> context;
	LoggingFailure(destination == nullptr ? "(null)" : destination, [&] {
		Require(destination != nullptr, "no destination");
		tarn::UniqueFd directory(open(destination, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		tarn::RequireCall(static_cast<bool>(directory), "cannot extract into it");
		context = std::make_unique<tarnarchive>();
		context->directory = std::move(directory);
	});
	return context.release();
}

bool tarnarchive_open_with_keytype(struct tarnarchive* context, const char* package, int key_type) {
	return LoggingFailure(package == nullptr ? "(null)" : package, [&] {
		Require(context != nullptr, "no context");
		context->archive.reset();
		Require(package != nullptr, "no archive named");
		Require(key_type >= 0, "negative key type");
		tarn::archive::ArchiveFile archive(package);
		CheckByInstalledKeys(archive, key_type);
		if (key_type == TARNARCHIVE_KEYTYPE_DATA_UPDATE) {
			const std::string path = package;
			tarn::archive::RequireAskedFor(archive.Metadata(), path.substr(path.rfind('/') + 1));
			TellObserver(package, std::string(archive.Metadata()));
		}
		context->package = package;
		context->archive = std::move(archive);
	});
}

bool tarnarchive_extract_multiple(struct tarnarchive* context, const char* const* members, int mode) {
	const char* path = context == nullptr ? "(null)" : context->package.c_str();
	return LoggingFailure(path, [&] {
		Require(context != nullptr && context->archive.has_value(), "extraction of an archive that is not open");
		Require(mode == TARNARCHIVE_EXTRACT_ALL, "unknown extraction mode");
		const std::vector<std::string> names = MemberList(members);
		Require(members == nullptr || !names.empty(), "empty list of members");
		tarn::archive::Extract(*context->archive, context->directory.Get(), names);
	});
}

void tarnarchive_free(struct tarnarchive* context) {
	const std::unique_ptr<tarnarchive> owner(context);
}

int tarnarchive_refusal(const char** reason) {
	if (reason != nullptr) {
		*reason = last_refusal.reason.data();
	}
	return last_refusal.kind;
}

bool tarnarchive_announced_size(const char* package, unsigned long long* bytes) {
	try {
		std::string head(tarn::archive::kHeadSize, '\0');
		const tarn::UniqueFd file = tarn::OpenRegularFile(AT_FDCWD, package);
		if (!tarn::ReadFullyAt(file.Get(), head.data(), head.size(), 0)) {
			return false;
		}
		*bytes = tarn::archive::DecodeHead(head).FileSize();
		return true;
	} catch (const std::exception&) {
		return false; // Not logged: whoever installs the package will tell.
	}
}

void tarnarchive_observe(tarnarchive_observer observer, void* data) {
	const tarn::MutexLock guard(the_observer.mutex);
	the_observer.tell = observer;
	the_observer.data = data;
}
