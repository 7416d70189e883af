#include "publisher/diff/kind_plan.h"

#include <algorithm>
#include <limits>

namespace tarn::publisher {

namespace {

constexpr const char* kExpected = "expected";
constexpr std::uint64_t kUnknown = std::numeric_limits<std::uint64_t>::max();

std::optional<std::uint64_t> Number(const Json::Value& value, PatchKind kind) {
	const Json::Value& number = value[PatchKindName(kind)];
	return number.isUInt64() ? std::optional<std::uint64_t>(number.asUInt64()) : std::nullopt;
}

} // namespace

ChainCosts& ChainCosts::operator+=(const StepCosts& step) {
	script += step.script.value_or(step.whole);
	patch += std::min(step.patch.value_or(step.whole), step.whole);
	return *this;
}

KindPlan PlanKind(const StepCosts& step, const AllowedKinds& allowed, const ChainCosts& past) {
	ChainCosts future = past;
	future += step;
	const std::uint64_t by_any = std::min(future.script, future.patch);
	KindPlan plan;
	plan.expected[PatchKind::kWhole] = step.whole + by_any;
	if (allowed.patch && step.patch) {
		plan.expected[PatchKind::kVcdiff] = *step.patch + by_any;
	}
	if (allowed.script && step.script) {
		plan.expected[PatchKind::kScript] = *step.script + std::min(future.script, step.whole + future.patch);
	}
	for (const PatchKind kind : {PatchKind::kScript, PatchKind::kVcdiff}) { // a later kind wins a tie
		const auto expected = plan.expected.find(kind);
		if (expected != plan.expected.end() && expected->second <= plan.expected[plan.kind]) {
			plan.kind = kind;
		}
	}
	return plan;
}

std::uint64_t WholeLimit(const StepCosts& step, const AllowedKinds& allowed, const ChainCosts& past) {
	if (!step.script || !(allowed.script || (allowed.patch && step.patch))) {
		return kUnknown; // The costs of scripts are those of the whole file then, or there is no choice.
	}
	StepCosts others = step;
	others.whole = kUnknown / 4; // of which sums have room
	const KindPlan plan = PlanKind(others, allowed, past);
	return plan.expected.at(plan.kind);
}

Json::Value PlanToJson(const StepCosts& step, const KindPlan& plan) {
	Json::Value value(Json::objectValue);
	const auto set = [](Json::Value& object, PatchKind kind, std::uint64_t number) {
		object[PatchKindName(kind)] = Json::UInt64{number};
	};
	if (step.script) {
		set(value, PatchKind::kScript, *step.script);
	}
	if (step.patch) {
		set(value, PatchKind::kVcdiff, *step.patch);
	}
	set(value, PatchKind::kWhole, step.whole);
	for (const auto& [kind, bytes] : plan.expected) {
		set(value[kExpected], kind, bytes);
	}
	return value;
}

std::optional<StepCosts> CostsFromJson(const Json::Value& value) {
	// No package is larger, so that sums of all steps have room.
	constexpr std::uint64_t kMost = std::uint64_t{1} << 40U;
	if (!value.isObject()) {
		return std::nullopt;
	}
	const std::optional<std::uint64_t> whole = Number(value, PatchKind::kWhole);
	const StepCosts costs = {Number(value, PatchKind::kScript), Number(value, PatchKind::kVcdiff), whole.value_or(0)};
	const bool is_sane =
	    whole && *whole <= kMost && costs.script.value_or(0) <= kMost && costs.patch.value_or(0) <= kMost;
	return is_sane ? std::optional(costs) : std::nullopt;
}

} // namespace tarn::publisher
