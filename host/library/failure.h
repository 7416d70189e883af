/** @file Exit codes, and what turns whatever is thrown into a category, an exit code and one sentence for people. */
#ifndef HOST_LIBRARY_FAILURE_H
#define HOST_LIBRARY_FAILURE_H

#include "dataupdate/utils.h"

#include <stdexcept>
#include <string>

namespace tarn::ctl {

/** "read" passes on any other number as well. */
enum ExitCode : int {
	kDone = 0,
	kFailed = 1,
	kUsage = 2,        ///< The command line cannot be understood.
	kUnsupported = 3,  ///< The configuration does not list the database.
	kFixNeeded = 4,    ///< Files of a database are missing, changed or unknown, half replaced, or not there at all.
	kAboveOffered = 5, ///< "status", "update" and "import": a later version is installed than is offered.
	kRefusedHere = 6,  ///< "update" and "fix": a check of this machine refused the version; nothing was replaced.
	kBeyondBudget = 7, ///< "update": more would have to be downloaded than is allowed.
	kHeld = 8,         ///< The administrator holds the database at its version.
	kLocked = 75,      ///< A lock is held, or files are half replaced; worth another try later (EX_TEMPFAIL).
	kNotExecutable = 126,
	kNotFound = 127,
	kSignalBase = 128, ///< Plus the number of the signal that ended a command.
	kInterrupted = 130,
};

/** What kind of failure the library reports; what programs decide by, while people read the sentence. */
enum class Category {
	kOther,
	kInterrupted,        ///< An operation ended early, as this program asked for.
	kLocked,             ///< Another process held a lock all the time, or the wait was ended by a request.
	kLockUnusable,       ///< A lock file cannot be opened.
	kUnknownDatabase,    ///< The configuration does not list the database.
	kDownload,           ///< A download failed.
	kLowSpace,           ///< There is too little space.
	kNoSuitableVolume,   ///< No volume may hold the databases.
	kVolumesUnknown,     ///< The volumes cannot be listed.
	kWrongConfiguration, ///< A setting is missing or wrong.
	kPackageRefused,     ///< A package's signature is missing or not trusted, or it is another package.
	kPackageUnusable,    ///< A package cannot be unpacked.
	kRefusedByCheck,     ///< A hook that checks refused the new version.
	kNoVerdict,          ///< A hook that checks could not be run to its end.
	kFilesMayBeAMixture, ///< An installation failed while it replaced files.
	kUndecodable,        ///< A file is no JSON document.
	kInvalidRecord,      ///< A document does not hold what it must.
	kNotWritable,        ///< A file or directory cannot be written.
	kDefaultsMissing,    ///< The configuration as shipped is missing.
};

/** What failed and what to do about it. */
struct Failure {
	Category category = Category::kOther;
	ExitCode code = kFailed;
	std::string sentence;
};

/** A failure that a command itself finds; its text is a whole sentence. */
class CommandError : public std::runtime_error {
public:
	CommandError(ExitCode code, const std::string& sentence) : std::runtime_error(sentence), code_(code) {}
	ExitCode Code() const { return code_; }

private:
	ExitCode code_;
};

/** What kind of failure a message of the library reports. */
[[nodiscard]] Category CategoryOf(const std::string& message);

/**
 * Explains a message of the library.
 *
 * @param platform_error  what TLIBCErrGet() returned when it was thrown
 * @param id  the database, for advice that names it; empty when it is not known
 */
[[nodiscard]] Failure ExplainMessage(const std::string& message, int platform_error, const std::string& id = "");

/**
 * Explains the exception that is being handled; to be called in a catch block of the thread that ran into it.
 *
 * @param io  reads the configuration files when one of them must be at fault
 * @param id  as for ExplainMessage()
 */
[[nodiscard]] Failure ExplainException(const dataupdate::IOUtils& io, const std::string& id = "");

/**
 * Whether the exception that is being handled is what a request to end makes of an operation: before it changes files,
 * while it waits for a lock, or for the downloader, which is ended as well. Any other failure happened on its own.
 */
[[nodiscard]] bool IsEarlyEnd();

} // namespace tarn::ctl

#endif
