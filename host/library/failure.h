/** @file Turns whatever is thrown into one sentence for people and an exit code. */
#ifndef HOST_LIBRARY_FAILURE_H
#define HOST_LIBRARY_FAILURE_H

#include "dataupdate/utils.h"
#include "host/library/exit_codes.h"

#include <stdexcept>
#include <string>

namespace tarn::ctl {

/** What failed and what to do about it. */
struct Failure {
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

/**
 * Explains a message of the library.
 *
 * @param platform_error  what TLIBCErrGet() returned when it was thrown
 */
Failure ExplainMessage(const std::string& message, int platform_error);

/**
 * Explains the exception that is being handled; to be called in a catch block of the thread that ran into it.
 *
 * @param io  reads the configuration files when one of them must be at fault
 */
Failure ExplainException(const dataupdate::IOUtils& io);

/**
 * Whether the exception that is being handled is what a request to end makes of an operation: before it changes files,
 * while it waits for a lock, or for the downloader, which is ended as well. Any other failure happened on its own.
 */
bool IsEarlyEnd();

} // namespace tarn::ctl

#endif
