/** @file What the library tells of its own work, and where it lets itself be ended early. */
#ifndef DATAUPDATE_INTERNAL_ACTIVITY_H
#define DATAUPDATE_INTERNAL_ACTIVITY_H

#include "dataupdate/interruption.h"
#include "dataupdate/progress.h"

#include <cstdint>
#include <list>
#include <string>

namespace tarn::dataupdate {

/** Whether an operation may end now and has been asked to. */
[[nodiscard]] bool IsInterrupted() noexcept;
/** Throws UpdateError "Interrupted" if so. */
void InterruptionPoint();

/**
 * Marks an activity from construction to destruction. Of those that are open, in whatever thread, the one that began
 * last is the current one. Throws UpdateError "Interrupted" in the place of an activity that would only have to be
 * ended.
 */
class ActivityScope {
public:
	ActivityScope(Phase phase, const std::string& path);
	~ActivityScope();
	ActivityScope(const ActivityScope&) = delete;
	ActivityScope& operator=(const ActivityScope&) = delete;

private:
	std::list<Activity>::iterator activity_;
};

/** Counts bytes of the current activity. */
void AddActivityBytes(std::uint64_t bytes);
/** Counts bytes that were read for a digest, unless another activity is current, beside which threads run ahead. */
void AddHashedBytes(std::uint64_t bytes);
/** Counts bytes of a file that has been downloaded, or whose download broke off. */
void AddDownloadedBytes(std::uint64_t bytes);

} // namespace tarn::dataupdate

#endif
