#include "dataupdate/internal/replacement_scope.h"

#include "base/mutex.h"
#include "dataupdate/installation.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/update_error.h"

#include <set>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "replacement_scope.cpp";

/**
 * Known to the whole process, because a strategy cannot be handed its scope: Updater::Update(), which hosts override,
 * and the strategies' constructors, which such an override calls, have a fixed interface. An override may also run the
 * strategy in another thread than the one that opened the scope.
 */
Mutex mutex;
std::set<ReplacementScope*> open_scopes TARN_GUARDED_BY(mutex);

template<typename Visit>
void ForEachScope(const std::string& id, const Visit& visit) {
	const MutexLock guard(mutex);
	for (ReplacementScope* scope : open_scopes) {
		if (scope->Id() == id) {
			visit(*scope);
		}
	}
}

} // namespace

ReplacementScope::ReplacementScope(std::string id) : id_(std::move(id)) {
	const MutexLock guard(mutex);
	open_scopes.insert(this);
}

ReplacementScope::~ReplacementScope() {
	const MutexLock guard(mutex);
	open_scopes.erase(this);
}

void ReplacementScope::EndByRecord() const noexcept {
	ClearReplacementMark(id_);
}

void ReplacementScope::Plan(const PlannedVersion& version, const ListPlanned& list) {
	try {
		PlanWriter plan(id_, version);
		list(plan);
		plan.Finish();
		is_planned_ = true;
	} catch (const std::exception& error) {
		TARN_LOG(LOG_INFO, "Killed from here on, this replacement would need its package again: %s", error.what());
	}
}

void ReplacementScope::Begin() {
	if (!shield_) {
		shield_.emplace();
	}
	try {
		is_planned_ ? SetMarkOverPlan(id_) : SetReplacementMark(id_);
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_ERR, "%s", error.what());
	}
}

void AnnounceReplacement(const std::string& id) {
	ForEachScope(id, [](ReplacementScope& scope) { scope.Begin(); });
}

void PlanReplacement(const std::string& id, const PlannedVersion& version, const ListPlanned& list) {
	ForEachScope(id, [&](ReplacementScope& scope) { scope.Plan(version, list); });
}

void KeepPlan(const std::string& id) {
	ForEachScope(id, [](ReplacementScope& scope) { scope.KeepPlan(); });
}

} // namespace tarn::dataupdate
