/** @file Signals that the process gets, around starting threads and other programs. */
#ifndef BASE_SIGNALS_H
#define BASE_SIGNALS_H

#include <signal.h>

namespace tarn::process {

/**
 * Has the ends of children told from now on: a caller that ignores SIGCHLD hands that down, and the kernel then forgets
 * how children ended. To be called once, when a program begins.
 */
void KeepEndsOfChildren();

/**
 * Gives every signal that is handled its default effect, and every ignored one as well if so. Is async-signal-safe, for
 * a child between fork and exec.
 */
void DropHandlers(bool drop_ignored);

/** Blocks all signals in the calling thread; threads and children that it makes meanwhile inherit that. */
class AllSignalsBlocked {
public:
	AllSignalsBlocked();
	~AllSignalsBlocked();
	AllSignalsBlocked(const AllSignalsBlocked&) = delete;
	AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

	/** What was blocked before. */
	const sigset_t& Before() const { return before_; }

private:
	sigset_t before_ = {};
};

} // namespace tarn::process

#endif
