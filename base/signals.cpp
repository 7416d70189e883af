#include "base/signals.h"

namespace tarn::process {

void DropHandlers(bool drop_ignored) {
	for (int number = 1; number < NSIG; ++number) {
		struct sigaction action = {};
		if (sigaction(number, nullptr, &action) != 0) {
			continue; // the C library keeps two signals to itself
		}
		if (action.sa_handler != SIG_DFL && (drop_ignored || action.sa_handler != SIG_IGN)) {
			action = {};
			action.sa_handler = SIG_DFL;
			sigaction(number, &action, nullptr);
		}
	}
}

void KeepEndsOfChildren() {
	signal(SIGCHLD, SIG_DFL);
}

AllSignalsBlocked::AllSignalsBlocked() {
	sigset_t all;
	sigfillset(&all);
	pthread_sigmask(SIG_SETMASK, &all, &before_);
}

AllSignalsBlocked::~AllSignalsBlocked() {
	pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

} // namespace tarn::process
