/** @file Which kind of patch a database gets, with a view to the steps that may follow. */
#ifndef PUBLISHER_DIFF_KIND_PLAN_H
#define PUBLISHER_DIFF_KIND_PLAN_H

#include "publisher/packages/diff_package.h"

#include <json/json.h>

#include <cstdint>
#include <map>
#include <optional>

namespace tarn::publisher {

/** The member of a package's metadata that holds the plans of its databases. */
constexpr const char* kPlansKey = "database_costs";

/** What one step of a chain takes by each kind, in compressed bytes; no value for what cannot be done. */
struct StepCosts {
	std::optional<std::uint64_t> script;
	std::optional<std::uint64_t> patch; // also when no device could apply the patch
	std::uint64_t whole = 0;            // or less than that: what is known to be too much is not measured
};

/** What all steps of a chain would have taken by each kind. */
struct ChainCosts {
	std::uint64_t script = 0;
	std::uint64_t patch = 0;

	/** Takes a whole file where the step has no such kind, or the patch is larger. */
	ChainCosts& operator+=(const StepCosts& step);
};

/** Which kinds devices can apply at this step. */
struct AllowedKinds {
	bool script = false;
	bool patch = false;
};

/** The kind with the least expected bytes, and what is expected of each kind that is possible. */
struct KindPlan {
	PatchKind kind = PatchKind::kWhole;
	std::map<PatchKind, std::uint64_t> expected;
};

/**
 * Chooses the kind for a step. Expects that as much follows as the chain has behind it, this step included. After a
 * patch or a whole file either kind may follow; after a script, scripts, or a whole file and then patches.
 */
KindPlan PlanKind(const StepCosts& step, const AllowedKinds& allowed, const ChainCosts& past);

/** A size from which a whole file is not chosen, whatever it is exactly; the step's size of the whole is ignored. */
std::uint64_t WholeLimit(const StepCosts& step, const AllowedKinds& allowed, const ChainCosts& past);

/** The form in a package's metadata. */
Json::Value PlanToJson(const StepCosts& step, const KindPlan& plan);
/** The costs of a step; no value when the metadata does not hold them. */
std::optional<StepCosts> CostsFromJson(const Json::Value& value);

} // namespace tarn::publisher

#endif
