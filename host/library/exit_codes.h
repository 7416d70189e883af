/** @file What the program's exit status says; scripts and timers rely on the numbers. */
#ifndef HOST_LIBRARY_EXIT_CODES_H
#define HOST_LIBRARY_EXIT_CODES_H

namespace tarn::ctl {

/** "read" passes on any other number as well. */
enum ExitCode : int {
	kDone = 0,
	kFailed = 1,
	kUsage = 2,        ///< The command line cannot be understood.
	kUnsupported = 3,  ///< The configuration does not list the database.
	kFixNeeded = 4,    ///< Files of a database are missing, changed or unknown, half replaced, or not there at all.
	kAboveOffered = 5, ///< "status" and "update": a later version is installed than the server offers.
	kLocked = 75,      ///< A lock is held, or files are half replaced; worth another try later (EX_TEMPFAIL).
	kNotExecutable = 126,
	kNotFound = 127,
	kSignalBase = 128, ///< Plus the number of the signal that ended a command.
	kInterrupted = 130,
};

} // namespace tarn::ctl

#endif
