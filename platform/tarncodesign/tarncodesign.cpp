#include "tarncodesign/tarncodesign.h"

#include "tarncodesign/archive_error.h"
#include "tarncodesign/extractor.h"

#include <fcntl.h>
#include <syslog.h>

#include <exception>
#include <memory>
#include <optional>

struct tarnarchive {
	tarn::UniqueFd directory;
	std::string package;
	std::optional<tarn::codesign::ArchiveFile> archive;
};

namespace {

using tarn::codesign::ArchiveError;

std::string KeyDirectory(int key_type) {
	return "/usr/tarn/etc/codesign/" + std::to_string(key_type);
}

/** Runs a function; whatever it throws becomes one line in the log and false. */
template<typename Function>
bool LoggingFailure(const char* path, const Function& function) noexcept {
	try {
		function();
		return true;
	} catch (const std::exception& error) {
		syslog(LOG_ERR, "tarncodesign: %s: %s", path, error.what());
	} catch (...) {
		syslog(LOG_ERR, "tarncodesign: %s: unknown error", path);
	}
	return false;
}

void Require(bool holds, const char* reason) {
	if (!holds) {
		throw ArchiveError(reason);
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
		if (!directory) {
			tarn::codesign::ThrowErrno("cannot extract into it");
		}
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
		tarn::codesign::ArchiveFile archive(package);
		archive.Check(tarn::codesign::LoadTrustedKeys(KeyDirectory(key_type)), static_cast<std::uint32_t>(key_type));
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
		tarn::codesign::Extract(*context->archive, context->directory.Get(), names);
	});
}

void tarnarchive_free(struct tarnarchive* context) {
	const std::unique_ptr<tarnarchive> owner(context);
}
