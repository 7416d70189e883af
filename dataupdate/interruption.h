/**
 * @file
 * Ending an operation early, with everything cleaned up.
 *
 * A host that is told to end asks for it from any thread or signal handler. The operation that runs in the process then
 * fails with UpdateError at its next convenient moment, and so does every later one: before a download, an unpacking, a
 * patch, within a digest or a script, and while it waits for a lock ("Fail to lock <path>", or -1 in the C interface).
 * Its destructors remove temporary data and release locks as after any failure. Class Update holds requests back from
 * the first change of installed files until the new version is recorded. A download or a patch is another program's
 * work, which the host may end in addition.
 */
#ifndef DATAUPDATE_INTERRUPTION_H
#define DATAUPDATE_INTERRUPTION_H

#include "dataupdate/export.h"

namespace tarn::dataupdate {

/** Asks operations to end. May be called from a signal handler. */
TARNDBUD_EXPORT void RequestInterruption() noexcept;
/** Whether a host has asked and has not forgotten it; a shield does not change the answer. */
TARNDBUD_EXPORT bool IsInterruptionRequested() noexcept;
/** Takes the request back, for a host that goes on afterwards. */
TARNDBUD_EXPORT void ForgetInterruption() noexcept;

/** Keeps operations from ending early for as long as it lives; a request waits. Shields may be nested. */
class TARNDBUD_EXPORT InterruptionShield {
public:
	InterruptionShield() noexcept;
	~InterruptionShield();
	InterruptionShield(const InterruptionShield&) = delete;
	InterruptionShield& operator=(const InterruptionShield&) = delete;
};

} // namespace tarn::dataupdate

#endif
