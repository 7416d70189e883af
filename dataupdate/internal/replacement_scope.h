/**
 * @file
 * What class Update does around a replacement of installed files, without the strategies knowing of it.
 *
 * A host that calls Updater or a strategy by itself opens no scope: no mark is set for it, and it can be interrupted
 * afterwards as before.
 */
#ifndef DATAUPDATE_INTERNAL_REPLACEMENT_SCOPE_H
#define DATAUPDATE_INTERNAL_REPLACEMENT_SCOPE_H

#include "dataupdate/internal/replacement_plan.h"
#include "dataupdate/interruption.h"

#include <functional>
#include <optional>
#include <string>

namespace tarn::dataupdate {

/** Adds the files of a replacement to its plan. */
using ListPlanned = std::function<void(PlanWriter& plan)>;

/**
 * From the opening until the new state of a database has been recorded. When installed files are about to change within
 * it, the mark of an unfinished replacement is set, and requests to end early wait for the scope's end. Open and close
 * it while you hold the database's update lock.
 */
class ReplacementScope {
public:
	explicit ReplacementScope(std::string id);
	~ReplacementScope();
	ReplacementScope(const ReplacementScope&) = delete;
	ReplacementScope& operator=(const ReplacementScope&) = delete;

	const std::string& Id() const { return id_; }
	/** The new state has been recorded: removes the mark as ClearReplacementMark() does. */
	void EndByRecord() const noexcept;

	/** What the functions below do for each scope of their database. */
	void Plan(const PlannedVersion& version, const ListPlanned& list);
	void KeepPlan() { is_planned_ = true; }
	void Begin();

private:
	std::string id_;
	bool is_planned_ = false;
	std::optional<InterruptionShield> shield_;
};

/**
 * A strategy calls this when everything is prepared, before readers are held off, so that another process can finish
 * what this one begins. Does nothing unless a scope of the database is open in this process. A plan that cannot be
 * written is logged at LOG_INFO and stops nothing.
 */
void PlanReplacement(const std::string& id, const PlannedVersion& version, const ListPlanned& list);

/**
 * A strategy calls this under the using lock, right before it changes the first installed file. Does nothing unless a
 * scope of the database is open in this process. A mark that cannot be set is logged at LOG_ERR and stops nothing: a
 * full state directory must not keep a database old.
 */
void AnnounceReplacement(const std::string& id);

/** A strategy calls this, likewise, that carries out the plan which is there: other marks take a plan away. */
void KeepPlan(const std::string& id);

} // namespace tarn::dataupdate

#endif
