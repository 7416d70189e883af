/** @file What the program's exit status says; scripts and timers rely on the numbers. */
#ifndef TARNDBUDCTL_EXIT_CODES_H
#define TARNDBUDCTL_EXIT_CODES_H

namespace tarn::ctl {

enum ExitCode : int {
	kDone = 0,
	kFailed = 1,
	kUsage = 2,       ///< The command line cannot be understood.
	kUnsupported = 3, ///< The configuration does not list the database.
	kFixNeeded = 4,   ///< A file of a database is missing or changed, or the database is not installed.
	kLocked = 75,     ///< A lock is held by somebody else; worth another try later (EX_TEMPFAIL).
};

} // namespace tarn::ctl

#endif
