/** @file The program's command line and exit codes. */
#ifndef DECODER_COMMAND_LINE_H
#define DECODER_COMMAND_LINE_H

#include <iosfwd>

namespace tarn::decoder {

enum ExitCode : int {
	kDone = 0,
	kFailed = 1,
	kUsage = 2, ///< The command line cannot be understood.
};

/** The program: what it says goes to the two streams, a failure as one line. */
ExitCode RunCommandLine(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace tarn::decoder

#endif
