#ifndef DECODER_COMMAND_LINE_H
#define DECODER_COMMAND_LINE_H

#include "decoder/exit_codes.h"

#include <iosfwd>

namespace tarn::vcdiff {

/** The program: what it says goes to the two streams, a failure as one line. */
ExitCode RunCommandLine(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace tarn::vcdiff

#endif
