#include "base/text.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/update_plan.h"
#include "host/terminal/text.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace tarn::ctl {

namespace {

const char* NameOf(Room room) {
	switch (room) {
	case Room::kEnough:
		return "enough";
	case Room::kPerhaps:
		return "perhaps too little";
	case Room::kTooLittle:
		return "too little";
	case Room::kUnknown:
		break;
	}
	return "unknown";
}

const char* WayOf(const UpdatePlan& plan) {
	if (!plan.is_needed) {
		return plan.finishes ? "prepared files" : "nothing";
	}
	return plan.way.is_chain ? "diff packages" : "full package";
}

std::string Version(int version) {
	return version < 0 ? "-" : std::to_string(version);
}

std::string Bytes(const UpdatePlan& plan, const std::optional<std::uint64_t>& bytes) {
	if (!plan.is_needed) {
		return plan.finishes ? HumanSize(0) : "-"; // What is prepared lies there already.
	}
	return bytes ? HumanSize(*bytes) : "unknown";
}

Json::Value WayToJson(const UpdatePlan& plan) {
	Json::Value object(Json::objectValue);
	object["way"] = WayOf(plan);
	object["reason"] = plan.reason;
	object["packages"] = plan.is_needed ? Json::UInt64{plan.way.packages} : 0;
	object["bytes"] = plan.is_needed ? OrNull(plan.way.bytes) : Json::Value(0);
	object["needed_bytes"] = plan.is_needed ? OrNull(plan.most_bytes) : Json::Value(0);
	object["free_bytes"] = OrNull(plan.free_bytes);
	object["room"] = plan.is_needed ? NameOf(plan.room) : NameOf(Room::kEnough);
	return object;
}

Json::Value ToJson(const UpdatePlan& plan) {
	Json::Value object = WayToJson(plan);
	object["id"] = plan.id;
	object["installed_version"] = plan.from < 0 ? Json::Value() : Json::Value(plan.from);
	object["offered_version"] = plan.found.offered;
	object["update"] = plan.is_needed || plan.finishes;
	object["unfinished"] = plan.is_unfinished;
	object["held"] = plan.hold.has_value();
	if (plan.old_place) {
		object["previous_dir"] = *plan.old_place;
	}
	object["readers"] = Json::UInt64{plan.readers};
	object["updating"] = plan.is_updating;
	if (!plan.obstacle.empty()) {
		object["not_when_scheduled"] = plan.obstacle;
	}
	return object;
}

std::string FormatTableOf(const std::vector<UpdatePlan>& plans) {
	std::vector<std::vector<std::string>> rows = {
	    {"DATABASE", "FROM", "TO", "BY", "BYTES", "NEEDS", "FREE", "ROOM", "READERS"}};
	for (const UpdatePlan& plan : plans) {
		rows.push_back(
		    {plan.id, Version(plan.from), Version(plan.found.offered), WayOf(plan), Bytes(plan, plan.way.bytes),
		        Bytes(plan, plan.most_bytes), plan.is_needed ? Bytes(plan, plan.free_bytes) : "-",
		        plan.is_needed ? NameOf(plan.room) : "-", std::to_string(plan.readers)});
	}
	return FormatTable(rows);
}

std::string Reasons(const std::vector<UpdatePlan>& plans) {
	std::string text;
	for (const UpdatePlan& plan : plans) {
		text += plan.id + ": " + plan.reason + (plan.is_updating ? "; it is being updated now" : "") +
		        (plan.obstacle.empty() ? "" : "; a scheduled update leaves it alone: " + plan.obstacle) + "\n";
	}
	return text;
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("ID", options.ids, "Databases; without one, all of them");
	app.add_flag("--json", options.json, "Print an array of objects, one for each database");
}

ExitCode Run(const Services& services, const Options& options) {
	for (const std::string& id : options.ids) {
		services.config->CheckSupported(id);
	}
	std::vector<UpdatePlan> plans;
	Json::Value array(Json::arrayValue);
	const auto make = [&](const std::string& id) {
		plans.push_back(MakeUpdatePlan(services, id));
		array.append(ToJson(plans.back()));
		return kDone;
	};
	const auto note = [&](const std::string& id, const Failure& failure) { array.append(FailureToJson(id, failure)); };
	const ExitCode code =
	    ForEachDatabase(services, options.ids.empty() ? services.config->GetDatabaseIDs() : options.ids, make, note);
	if (options.json) {
		services.terminal.Say(FormatJson(array));
	} else if (!plans.empty()) {
		services.terminal.Say(FormatTableOf(plans) + Reasons(plans));
	}
	return code;
}

} // namespace

const Command kPlanCommand = {"plan", "Show what an update would do",
    "Changes nothing but the cached document of the server. Tells the packages, their bytes, the room that they need "
    "if\n"
    "all files change and do not grow, what is free beside the reserve of 5 %, and how many readers hold the database\n"
    "now. The size of a full package is asked of the server.",
    {kUnsupported, kLocked}, true, false, Declare, Run};

} // namespace tarn::ctl
