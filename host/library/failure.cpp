#include "host/library/failure.h"

#include "base/text.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/space_shortage.h"
#include "dataupdate/update_error.h"
#include "host/library/download_failure.h"
#include "host/library/installed_package.h"

#include <tarncore/tarncore.h>

#include <boost/filesystem/exception.hpp>
#include <json/value.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <optional>

namespace tarn::ctl {

namespace messages = dataupdate::messages;

using dataupdate::UpdateError;

namespace {

constexpr std::size_t kLongestMessage = 600;
constexpr char kDefaultsDirectory[] = "/usr/share/data_update/";
constexpr char kServiceSection[] = "config'";
constexpr char kReaderHint[] = "a reader of the database did not let go of it in time: try later";
constexpr char kHalfReplacedHint[] = "the files may be half replaced: remove the cause and update again";

/** What is known about a failure when its hint is made up. */
struct Circumstances {
	std::string message;
	int platform_error;
	std::string id;
};

std::string ConfigurationFiles(const Circumstances& failure) {
	const bool of_service = StartsWith(failure.message, std::string(messages::kMissingSetting) + kServiceSection);
	return std::string("set it in ") + (of_service ? dataupdate::kServiceOverride : dataupdate::kDatabaseOverride) +
	       " or restore " + (of_service ? dataupdate::kServiceDefaults : dataupdate::kDatabaseDefaults);
}

std::string LinkHint(const Circumstances& failure) {
	if (StartsWith(failure.message, std::string(messages::kCannotDownload) + "-")) {
		return "no link may begin with \"-\": correct the server's document";
	}
	return DescribeDownloadFailure(failure.platform_error);
}

std::string LowSpaceHint(const Circumstances& /*failure*/) {
	const std::optional<dataupdate::SpaceShortage> shortage = dataupdate::LastSpaceShortage();
	if (!shortage) {
		return "free some space on the volume and on the file system of the databases (5 % must stay free)";
	}
	return "the file system of " + shortage->path + " had " + HumanSize(shortage->available) + " free of " +
	       HumanSize(shortage->capacity) + ", and at least " + HumanSize(shortage->lacking) +
	       " more had to be free, for 5 % must stay free: free some space there";
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

std::string RefusalHint(const Circumstances& failure) {
	return "nothing was replaced; no update tries this version again unless told so by \"tarndbudctl update " +
	       (failure.id.empty() ? "ID" : failure.id) + " --retry-refused\"";
}

/**
 * One kind of message: its beginning, its category and exit code, and what to do. Of several that fit, the first
 * counts; the last fits all. Links come from the server and may hold any text, so nothing is sought behind the
 * beginning.
 */
struct Rule {
	Category category;
	ExitCode code;
	const char* beginning;
	const char* then; ///< What follows the beginning; empty for any text.
	const char* hint; ///< Null where nobody can do anything, and where a function makes the hint.
	std::string (*make_hint)(const Circumstances&) = nullptr; ///< In the hint's place.
};

constexpr Rule kRules[] = {
    {Category::kUnknownDatabase, kUnsupported, messages::kUnknownProject, "",
        "the configured databases are listed by \"tarndbudctl status\""},
    {Category::kLocked, kLocked, messages::kCannotLock, "",
        "another process holds it (a running update, or a reader of the database): try later"},
    {Category::kLockUnusable, kFailed, messages::kCannotOpenLock, "", "tarndbudctl must be run as root"},
    {Category::kDownload, kFailed, messages::kCannotDownload, "", nullptr, LinkHint},
    {Category::kLowSpace, kFailed, messages::kLowSpace, "", nullptr, LowSpaceHint},
    {Category::kNoSuitableVolume, kFailed, messages::kNoSuitableVolume, "",
        "mount a writable volume with enough free space, or name one in /usr/tarn/etc/volumes.conf"},
    {Category::kVolumesUnknown, kFailed, messages::kCannotListVolumes, "",
        "mount a volume, or name one in /usr/tarn/etc/volumes.conf"},
    {Category::kWrongConfiguration, kFailed, messages::kReserveOverflow, "",
        "correct \"min_rsv_space_inbytes\" in the configuration of the databases"},
    {Category::kPackageRefused, kFailed, messages::kCannotOpenPackage, "", nullptr, PackageHint},
    {Category::kPackageUnusable, kFailed, messages::kCannotExtract, "",
        "the package holds what must not be installed, or there is no space for its content: see the system log"},
    {Category::kWrongConfiguration, kFailed, messages::kMissingSetting, "", nullptr, ConfigurationFiles},
    {Category::kWrongConfiguration, kFailed, messages::kWrongType, "",
        "a setting in /usr/share/data_update has the wrong type: restore data_update.conf and databases.conf there"},
    {Category::kWrongConfiguration, kFailed, messages::kInvalidValue, "",
        R"("install_dest" of a database must be "%VOLUME%" or "%ROOTFS%" in databases.conf)"},
    {Category::kNotWritable, kFailed, messages::kCannotSet, "", "check that /usr/tarn/etc/data_update can be written"},
    {Category::kLocked, kLocked, messages::kFullUpdate, messages::kCannotLock, kReaderHint},
    {Category::kLocked, kLocked, messages::kDiffUpdate, messages::kCannotLock, kReaderHint},
    {Category::kLocked, kLocked, messages::kForceInstall, messages::kCannotLock, kReaderHint},
    {Category::kPackageRefused, kFailed, messages::kForceInstall, messages::kCannotOpenPackage, nullptr, PackageHint},
    {Category::kRefusedByCheck, kRefusedHere, messages::kRefused, "", nullptr, RefusalHint},
    {Category::kNoVerdict, kFailed, messages::kNoVerdict, "",
        "nothing was replaced; see the system log, and correct the hook or what it needs"},
    {Category::kFilesMayBeAMixture, kFailed, messages::kFullUpdate, "", kHalfReplacedHint},
    {Category::kFilesMayBeAMixture, kFailed, messages::kDiffUpdate, "", kHalfReplacedHint},
    {Category::kFilesMayBeAMixture, kFailed, messages::kForceInstall, "",
        "the files may be a mixture: run \"tarndbudctl fix\" or force it again"},
    {Category::kDefaultsMissing, kFailed, messages::kFileNotExist, kDefaultsDirectory,
        "install the default configuration again"},
    {Category::kUndecodable, kFailed, messages::kCannotDecode, "", "correct that file"},
    {Category::kNotWritable, kFailed, messages::kCannotWrite, "", "check the free space and the permissions"},
    {Category::kNotWritable, kFailed, messages::kCannotCreateDirectory, "",
        "tarndbudctl must be run as root, on a file system that can be written"},
    {Category::kInvalidRecord, kFailed, messages::kInvalidRecord, "", nullptr},
    {Category::kInterrupted, kFailed, messages::kInterrupted, "", nullptr},
    {Category::kOther, kFailed, "", "", nullptr},
};

const Rule& RuleFor(const std::string& message) {
	return *std::find_if(std::begin(kRules), std::end(kRules),
	    [&](const Rule& rule) { return StartsWith(message, std::string(rule.beginning) + rule.then); });
}

std::string WithEnd(const std::string& sentence) {
	return sentence.empty() || sentence.back() == '.' ? sentence : sentence + '.';
}

/** How far "Fail on project 'geo': " reaches at the message's beginning; 0 without it. */
std::size_t WrapperLength(const std::string& message) {
	const std::size_t end = message.find(messages::kOnProjectEnd, std::strlen(messages::kOnProject));
	return StartsWith(message, messages::kOnProject) && end != std::string::npos
	           ? end + std::strlen(messages::kOnProjectEnd)
	           : 0;
}

/** "geo: " of the wrapper; empty without it. */
std::string Subject(const std::string& wrapper) {
	const std::size_t begin = std::strlen(messages::kOnProject);
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
			return {Category::kOther, kFailed,
			    std::string("The configuration file ") + path +
			        " is malformed: it must be an object of sections, each an object of settings; correct "
			        "or restore it."};
		}
	}
	return {Category::kOther, kFailed,
	    WithEnd(std::string("A JSON document is malformed, perhaps the description of a diff package: ") + what)};
}

bool IsOfEarlyEnd(Category category) {
	return category == Category::kInterrupted || category == Category::kDownload || category == Category::kLocked;
}

Failure ExplainFileError(const boost::filesystem::filesystem_error& error) {
	const std::string path = error.path1().empty() ? "" : ": " + error.path1().string();
	return {Category::kOther, kFailed,
	    "A file cannot be used" + path + " (" + error.code().message() +
	        "); check its permissions and the file system."};
}

} // namespace

Category CategoryOf(const std::string& message) {
	return RuleFor(message.substr(WrapperLength(message))).category;
}

Failure ExplainMessage(const std::string& message, int platform_error, const std::string& id) {
	const std::size_t wrapped = WrapperLength(message);
	const std::string subject = Subject(message.substr(0, wrapped));
	const std::string inner = message.substr(wrapped);
	const Rule& rule = RuleFor(inner);
	if (rule.hint == nullptr && rule.make_hint == nullptr) {
		return {rule.category, rule.code, subject + WithEnd(inner)};
	}
	const std::string hint =
	    rule.make_hint == nullptr ? rule.hint : rule.make_hint(Circumstances{inner, platform_error, id});
	return {rule.category, rule.code,
	    subject + WithEnd(PlainAscii(WithoutEnd(inner, ". "), kLongestMessage) + "; " + hint)};
}

Failure ExplainException(const dataupdate::IOUtils& io, const std::string& id) {
	const int platform_error = TLIBCErrGet();
	try {
		throw;
	} catch (const CommandError& error) {
		return {Category::kOther, error.Code(), WithEnd(error.what())};
	} catch (const UpdateError& error) {
		return ExplainMessage(error.what(), platform_error, id);
	} catch (const Json::Exception& error) {
		return ExplainConfiguration(io, error.what());
	} catch (const boost::filesystem::filesystem_error& error) {
		return ExplainFileError(error);
	} catch (const std::bad_alloc&) {
		return {Category::kOther, kFailed, "There is not enough memory; end other programs and try again."};
	} catch (const std::exception& error) {
		return ExplainMessage(error.what(), platform_error, id);
	} catch (...) {
		return {Category::kOther, kFailed, "Something unknown went wrong; see the system log."};
	}
}

bool IsEarlyEnd() {
	try {
		throw;
	} catch (const CommandError& error) {
		return error.Code() == kLocked || IsOfEarlyEnd(CategoryOf(error.what()));
	} catch (const std::exception& error) {
		return IsOfEarlyEnd(CategoryOf(error.what()));
	} catch (...) {
		return false;
	}
}

} // namespace tarn::ctl
