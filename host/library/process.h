/** @file This process: its mask of file modes, and the signals that ask it to end. */
#ifndef HOST_LIBRARY_PROCESS_H
#define HOST_LIBRARY_PROCESS_H

#include "base/unique_fd.h"
#include "dataupdate/interruption.h"

#include <sys/types.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace tarn::ctl {

/**
 * Sets the mask to 022 for this program, for the library in it and for what these start: the downloader, the decoder
 * and hooks. A caller's mask of 000 would make records that all may write, and one of 077 would shut readers out. To be
 * called once, first of all.
 */
void SetOwnUmask();

/** What the mask was before SetOwnUmask(), for commands that run in the caller's name; the present one before that. */
mode_t CallersUmask();

/**
 * Turns SIGINT, SIGTERM and SIGHUP (those that are not ignored) into a request to the library, and ends the programs
 * that do its downloads and patches. To be made before any other thread, one at a time.
 */
class InterruptionWatch {
public:
	InterruptionWatch();
	~InterruptionWatch();

	/** Ends the process by the signal that came, so that its caller learns of it; returns when none came. */
	void EndBySignal() const;

private:
	void Run();
	void Take();

	sigset_t watched_ = {};
	sigset_t previous_ = {};
	UniqueFd signals_;
	/** The thread ends when the other end is closed. */
	UniqueFd ended_;
	UniqueFd ending_;
	std::atomic<int> number_ = 0;
	std::thread thread_;
};

/** Passes the watched signals on to a child as long as it lives, apart from those that a terminal sends to both. */
class SignalForwarding {
public:
	explicit SignalForwarding(pid_t child);
	~SignalForwarding();
	SignalForwarding(const SignalForwarding&) = delete;
	SignalForwarding& operator=(const SignalForwarding&) = delete;
};

/** What is blocked in this thread without the signals that the watch takes: for a child. */
sigset_t MaskForChild();

} // namespace tarn::ctl

#endif
