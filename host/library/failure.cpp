#include "host/library/failure.h"

#include "base/text.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/download_limits.h"
#include "host/library/installed_package.h"

#include <tarncore/tarncore.h>

#include <boost/filesystem/exception.hpp>
#include <json/value.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>
#include <optional>
#include <vector>

namespace tarn::ctl {

using dataupdate::UpdateError;

namespace {

constexpr size_t kLongestMessage = 600;
constexpr char kWrapper[] = "Fail on project '";

/** What is known about a failure when its hint is made up. */
struct Circumstances {
	std::string message;
	int platform_error;
};

std::string ConfigurationFiles(const Circumstances& failure) {
	const bool of_service = StartsWith(failure.message, "section-key: 'config'-");
	return std::string("set it in ") + (of_service ? dataupdate::kServiceOverride : dataupdate::kDatabaseOverride) +
	       " or restore " + (of_service ? dataupdate::kServiceDefaults : dataupdate::kDatabaseDefaults);
}

std::string LinkHint(const Circumstances& failure) {
	struct Hint {
		int error;
		const char* text;
	};
	static constexpr Hint kHints[] = {
	    {TLIBC_ERR_EXIT + 1, "wget refuses it: check that the link begins with http:// or https://"},
	    {TLIBC_ERR_EXIT + 2, "wget refuses its settings: correct /usr/tarn/etc/data_update/wgetrc"},
	    {TLIBC_ERR_EXIT + 3, "wget could not write the file: check the free space and the file system"},
	    {TLIBC_ERR_EXIT + 4, "the server cannot be reached or breaks off: check the network, the proxy, the server's "
	                         "name and the scheme"},
	    {TLIBC_ERR_EXIT + 5, "the server's certificate is not trusted: check the clock and the certificates"},
	    {TLIBC_ERR_EXIT + 6, "the server or the proxy wants a password: check the proxy's settings"},
	    {TLIBC_ERR_EXIT + 7, "what answered speaks no HTTP: check the scheme, the host and the port"},
	    {TLIBC_ERR_EXIT + 8, "the server answered with an error: check that it offers this file"},
	    {ENOENT, "/usr/bin/wget could not be started: install wget"},
	    {EACCES, "/usr/bin/wget could not be started: check its permissions"},
	};
	if (StartsWith(failure.message, "Fail to wget url: -")) {
		return "no link may begin with \"-\": correct the server's document";
	}
	if ((failure.platform_error & TLIBC_ERR_DOWNLOAD) != 0) {
		return DescribeDownloadEnd(failure.platform_error);
	}
	const auto* hint = std::find_if(std::begin(kHints), std::end(kHints),
	    [&](const Hint& candidate) { return candidate.error == failure.platform_error; });
	return hint == std::end(kHints) ? "check the network, the server and that wget is installed" : hint->text;
}

/** The reason that the platform gave, where it gives reasons. */
std::string PackageHint(const Circumstances& /*failure*/) {
	const std::optional<PackageRefusal> refusal = LastPackageRefusal();
	if (refusal && refusal->not_asked_for) {
		return refusal->reason +
		       "; the server, or whoever answers in its place, offers another package than its document says: nothing "
		       "was changed, tell the publisher";
	}
	return (refusal ? "it " + refusal->reason + "; " : "") +
	       "the package is damaged, unsigned or signed with a key that is not trusted: install the publisher's public "
	       "key in /usr/tarn/etc/codesign/6; nothing was changed";
}

/**
 * One kind of message: how it is known, its exit code and what to do. Of several that fit, the first counts. Links come
 * from the server and may hold any text, so a message is known by its beginning alone.
 */
struct Rule {
	const char* beginning;
	ExitCode code;
	const char* hint;
	std::string (*make_hint)(const Circumstances&) = nullptr; ///< In the hint's place.
};

constexpr Rule kRules[] = {
    {"Project ", kUnsupported, "the configured databases are listed by \"tarndbudctl status\""},
    {"Fail to lock ", kLocked, "somebody else holds it (a running update, or a reader of the database): try later"},
    {"Fail open lock file ", kFailed, "tarndbudctl must be run as root"},
    {"Fail to wget url: ", kFailed, nullptr, LinkHint},
    {"Disk space is too low", kFailed,
        "free some space on the volume and on the file system of the databases (5 % must stay free)"},
    {"Cannot find suitable volume.", kFailed,
        "mount a writable volume with enough free space, or name one in /usr/tarn/etc/volumes.conf"},
    {"Failed to enum all volumes", kFailed, "mount a volume, or name one in /usr/tarn/etc/volumes.conf"},
    {"Overflow detection", kFailed, "correct \"min_rsv_space_inbytes\" in the configuration of the databases"},
    {"tarnarchive_open ", kFailed, nullptr, PackageHint},
    {"tarnarchive_extract ", kFailed,
        "the package holds what must not be installed, or there is no space for its content: see the system log"},
    {"section-key: ", kFailed, nullptr, ConfigurationFiles},
    {"Bad type conversion", kFailed,
        "a setting in /usr/share/data_update has the wrong type: restore data_update.conf and databases.conf there"},
    {"Invalid value '", kFailed, R"("install_dest" of a database must be "%VOLUME%" or "%ROOTFS%" in databases.conf)"},
    {"Fail to set config ", kFailed, "check that /usr/tarn/etc/data_update can be written"},
    {"Fail to full update: Fail to lock ", kLocked, "a reader of the database did not let go of it in time: try later"},
    {"Fail to diff update: Fail to lock ", kLocked, "a reader of the database did not let go of it in time: try later"},
    {"Fail to diff update: ", kFailed, "the files may be half replaced: remove the cause and update again"},
    {"Fail to force install: Fail to lock ", kLocked,
        "a reader of the database did not let go of it in time: try later"},
    {"Fail to force install: tarnarchive_open ", kFailed, nullptr, PackageHint},
    {"Fail to force install: ", kFailed, "the files may be a mixture: run \"tarndbudctl fix\" or force it again"},
    {"Fail to full update: ", kFailed, "the files may be half replaced: remove the cause and update again"},
    {"File not exist: /usr/share/data_update/", kFailed, "install the default configuration again"},
    {"Fail to decode: ", kFailed, "correct that file"},
    {"Fail to write: ", kFailed, "check the free space and the permissions"},
    {"Fail to create dir ", kFailed, "tarndbudctl must be run as root, on a file system that can be written"},
};

std::string WithEnd(const std::string& sentence) {
	return sentence.empty() || sentence.back() == '.' ? sentence : sentence + '.';
}

std::string WithoutEnd(std::string text) {
	while (!text.empty() && (text.back() == '.' || text.back() == ' ')) {
		text.pop_back();
	}
	return text;
}

/** How far "Fail on project 'geo': " reaches at the message's beginning; 0 without it. */
size_t WrapperLength(const std::string& message) {
	const size_t end = message.find("': ", std::strlen(kWrapper));
	return StartsWith(message, kWrapper) && end != std::string::npos ? end + std::strlen("': ") : 0;
}

/** "geo: " of the wrapper; empty without it. */
std::string Subject(const std::string& wrapper) {
	const size_t begin = std::strlen(kWrapper);
	return wrapper.empty() ? "" : wrapper.substr(begin, wrapper.find_last_of('\'') - begin) + ": ";
}

bool HasSections(const dataupdate::IOUtils& io, const std::string& path) {
	try {
		const Json::Value root = io.ReadJson(path);
		return root.isObject() &&
		       std::all_of(root.begin(), root.end(), [](const Json::Value& section) { return section.isObject(); });
	} catch (const UpdateError&) {
		return true; // Reported by itself where it matters.
	}
}

/**
 * JsonCpp's own exceptions come from configuration files and from the descriptions of diff packages; the server's
 * document is checked where it is read.
 */
Failure ExplainConfiguration(const dataupdate::IOUtils& io, const char* what) {
	for (const char* path : {dataupdate::kServiceOverride, dataupdate::kServiceDefaults, dataupdate::kDatabaseOverride,
	         dataupdate::kDatabaseDefaults}) {
		if (!HasSections(io, path)) {
			return {kFailed, std::string("The configuration file ") + path +
			                     " is malformed: it must be an object of sections, each an object of settings; correct "
			                     "or restore it."};
		}
	}
	return {kFailed,
	    WithEnd(std::string("A JSON document is malformed, perhaps the description of a diff package: ") + what)};
}

bool TellsEarlyEnd(const std::string& message) {
	const std::string inner = message.substr(WrapperLength(message));
	return inner == "Interrupted" || StartsWith(inner, "Fail to wget url: ") ||
	       ExplainMessage(inner, 0).code == kLocked;
}

Failure ExplainFileError(const boost::filesystem::filesystem_error& error) {
	const std::string path = error.path1().empty() ? "" : ": " + error.path1().string();
	return {kFailed, "A file cannot be used" + path + " (" + error.code().message() +
	                     "); check its permissions and the file system."};
}

} // namespace

Failure ExplainMessage(const std::string& message, int platform_error) {
	const size_t wrapped = WrapperLength(message);
	const std::string subject = Subject(message.substr(0, wrapped));
	const std::string inner = message.substr(wrapped);
	const auto* rule = std::find_if(std::begin(kRules), std::end(kRules),
	    [&](const Rule& candidate) { return StartsWith(inner, candidate.beginning); });
	if (rule == std::end(kRules)) {
		return {kFailed, subject + WithEnd(inner)};
	}
	const std::string hint =
	    rule->make_hint == nullptr ? rule->hint : rule->make_hint(Circumstances{inner, platform_error});
	return {rule->code, subject + WithEnd(PlainAscii(WithoutEnd(inner), kLongestMessage) + "; " + hint)};
}

Failure ExplainException(const dataupdate::IOUtils& io) {
	const int platform_error = TLIBCErrGet();
	try {
		throw;
	} catch (const CommandError& error) {
		return {error.Code(), WithEnd(error.what())};
	} catch (const UpdateError& error) {
		return ExplainMessage(error.what(), platform_error);
	} catch (const Json::Exception& error) {
		return ExplainConfiguration(io, error.what());
	} catch (const boost::filesystem::filesystem_error& error) {
		return ExplainFileError(error);
	} catch (const std::bad_alloc&) {
		return {kFailed, "There is not enough memory; end other programs and try again."};
	} catch (const std::exception& error) {
		return ExplainMessage(error.what(), platform_error);
	} catch (...) {
		return {kFailed, "Something unknown went wrong; see the system log."};
	}
}

bool IsEarlyEnd() {
	try {
		throw;
	} catch (const CommandError& error) {
		return error.Code() == kLocked || TellsEarlyEnd(error.what());
	} catch (const std::exception& error) {
		return TellsEarlyEnd(error.what());
	} catch (...) {
		return false;
	}
}

} // namespace tarn::ctl
