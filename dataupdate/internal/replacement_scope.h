/**
 * @file
 * What class Update does around a replacement of installed files, and strategies know nothing of.
 *
 * A host that calls Updater or a strategy by itself opens no scope: no mark is set for it, and it can be interrupted
 * afterwards as before.
 */
#ifndef DATAUPDATE_INTERNAL_REPLACEMENT_SCOPE_H
#define DATAUPDATE_INTERNAL_REPLACEMENT_SCOPE_H

#include "dataupdate/interruption.h"

#include <optional>
#include <string>

namespace tarn::dataupdate {

/**
 * From the opening until the new state of a database has been recorded. When installed files are about to change within
 * it, the mark of an unfinished replacement is set, and requests to end early wait for the scope's end. To be opened
 * and closed while the database's update lock is held.
 */
class ReplacementScope {
public:
	explicit ReplacementScope(std::string id);
	~ReplacementScope();
	ReplacementScope(const ReplacementScope&) = delete;
	ReplacementScope& operator=(const ReplacementScope&) = delete;

	/** The new state has been recorded: removes the mark as ClearReplacementMark() does. */
	void EndByRecord() const noexcept;

private:
	friend void AnnounceReplacement(const std::string& id);
	void Begin();

	std::string id_;
	std::optional<InterruptionShield> shield_;
};

/**
 * For a strategy, under the using lock and right before it changes the first installed file; does nothing unless a
 * scope of the database is open in this process. A mark that cannot be set is logged at LOG_ERR and stops nothing: old
 * files that cannot be replaced because a state directory is full help nobody.
 */
void AnnounceReplacement(const std::string& id);

} // namespace tarn::dataupdate

#endif
