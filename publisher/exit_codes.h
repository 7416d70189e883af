#ifndef PUBLISHER_EXIT_CODES_H
#define PUBLISHER_EXIT_CODES_H

namespace tarn::publisher {

enum ExitCode : int { kDone = 0, kFailed = 1, kUsage = 2 };

} // namespace tarn::publisher

#endif
