/** @file What a hook writes, as far as people are going to read it. */
#ifndef PLATFORM_TARNSDK_HOOK_OUTPUT_H
#define PLATFORM_TARNSDK_HOOK_OUTPUT_H

#include "base/unique_fd.h"

#include <string>

namespace tarn::sdk {

/**
 * The beginning of one stream of a hook. What comes behind it is read as well and dropped, so that a hook never waits
 * for a reader and never fills memory.
 */
class HookStream {
public:
	/** Makes the pipe; false with errno set when that fails. */
	[[nodiscard]] bool Open();

	/** The hook's end, which the caller keeps open only until the hook has been started. */
	UniqueFd& WriteEnd() { return write_end_; }
	/** To be polled; -1 when nothing comes any more. */
	int ReadEnd() const { return read_end_.Get(); }

	/** Takes what has come, without waiting. */
	void Take();

	/** The first line that is not blank, as printable ASCII of limited length. */
	std::string FirstLine() const;

private:
	UniqueFd read_end_;
	UniqueFd write_end_;
	std::string beginning_;
};

} // namespace tarn::sdk

#endif
