#ifndef DECODER_EXIT_CODES_H
#define DECODER_EXIT_CODES_H

namespace tarn::vcdiff {

enum ExitCode : int {
	kDone = 0,
	kFailed = 1,
	kUsage = 2, ///< The command line cannot be understood.
};

} // namespace tarn::vcdiff

#endif
