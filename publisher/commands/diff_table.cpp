#include "publisher/commands/diff_table.h"

#include "base/text.h"
#include "publisher/common/json_text.h"
#include "publisher/diff/kind_plan.h"

#include <array>
#include <iomanip>
#include <map>
#include <string>
#include <utility>

namespace tarn::publisher {

namespace {

struct Total {
	std::uint64_t files = 0;
	std::uint64_t bytes = 0;
};

/** Files and bytes by kind, in the order of the kinds. */
std::map<PatchKind, Total> TotalsOf(const DiffPackage& diff) {
	std::map<PatchKind, Total> totals;
	for (const DiffMember& member : diff.members) {
		Total& total = totals[member.kind];
		++total.files;
		total.bytes += member.size;
	}
	return totals;
}

/** What the publisher expected of a database; null for other files. */
const Json::Value* PlanOf(const DiffPackage& diff, const std::string& name) {
	const Json::Value& plans = diff.metadata[kPlansKey];
	const Json::Value* plan = plans.isObject() ? plans.find(name.data(), name.data() + name.size()) : nullptr;
	return plan != nullptr && plan->isObject() && (*plan)["expected"].isObject() ? plan : nullptr;
}

std::string Counted(std::uint64_t count, PatchKind kind) {
	const bool directories = kind == PatchKind::kEmptied;
	const char* one = directories ? " directory" : " file";
	const char* many = directories ? " directories" : " files";
	return std::to_string(count) + (count == 1 ? one : many);
}

void PrintMembers(const DiffPackage& diff, std::ostream& out) {
	constexpr int kSizeWidth = 14;
	constexpr int kOperationWidth = 11;
	constexpr int kKindWidth = 9;
	const auto begin_line = [&out](std::uint64_t bytes, const std::string& operation, const char* kind) {
		out << std::setw(kSizeWidth) << bytes << "  " << std::left << std::setw(kOperationWidth) << operation
		    << std::setw(kKindWidth) << kind << std::right;
	};
	out << std::setw(kSizeWidth) << "bytes"
	    << "  operation  kind     name\n";
	for (const DiffMember& member : diff.members) {
		begin_line(member.size, OperationOf(member.kind), PatchKindName(member.kind));
		out << Printable(member.name) << "\n";
	}
	out << "\n";
	for (const auto& [kind, total] : TotalsOf(diff)) {
		begin_line(total.bytes, "total", PatchKindName(kind));
		out << Counted(total.files, kind) << "\n";
	}
}

/** "37 (74)", or "-" where the kind is not possible. */
std::string PlannedBytes(const Json::Value& plan, PatchKind kind) {
	const Json::Value& bytes = plan[PatchKindName(kind)];
	const Json::Value& expected = plan["expected"][PatchKindName(kind)];
	const std::string text = bytes.isUInt64() ? std::to_string(bytes.asUInt64()) : "-";
	return expected.isUInt64() ? text + " (" + std::to_string(expected.asUInt64()) + ")" : text;
}

/** Of each database, what this step takes by each kind, and what it takes with the steps that are expected after it. */
void PrintPlans(const DiffPackage& diff, std::ostream& out) {
	constexpr std::array kKinds = {PatchKind::kScript, PatchKind::kVcdiff, PatchKind::kWhole};
	constexpr int kWidth = 24;
	bool is_first = true;
	for (const DiffMember& member : diff.members) {
		const Json::Value* plan = PlanOf(diff, member.name);
		if (plan == nullptr) {
			continue;
		}
		if (is_first) {
			out << "\ncompressed bytes by kind, of the whole at least so many (expected with as much again as the "
			       "chain so far)\n";
			for (const PatchKind kind : kKinds) {
				out << std::setw(kWidth) << PatchKindName(kind);
			}
			out << "  chosen   name\n";
		}
		is_first = false;
		for (const PatchKind kind : kKinds) {
			out << std::setw(kWidth) << PlannedBytes(*plan, kind);
		}
		out << "  " << std::left << std::setw(9) << PatchKindName(member.kind) << std::right << Printable(member.name)
		    << "\n";
	}
}

} // namespace

void AddDiffJson(const DiffPackage& diff, Json::Value& value) {
	Json::Value& changes = value["changes"] = Json::Value(Json::arrayValue);
	for (const DiffMember& member : diff.members) {
		Json::Value item = JsonObject({{"name", member.name}, {"operation", OperationOf(member.kind)},
		    {"kind", PatchKindName(member.kind)}, {"size", member.size}});
		if (const Json::Value* plan = PlanOf(diff, member.name)) {
			item["plan"] = *plan;
		}
		changes.append(std::move(item));
	}
	Json::Value& totals = value["totals"] = Json::Value(Json::objectValue);
	for (const auto& [kind, total] : TotalsOf(diff)) {
		totals[PatchKindName(kind)] = JsonObject({{"files", total.files}, {"bytes", total.bytes}});
	}
}

void PrintDiffTable(const DiffPackage& diff, std::ostream& out) {
	PrintMembers(diff, out);
	PrintPlans(diff, out);
}

} // namespace tarn::publisher
