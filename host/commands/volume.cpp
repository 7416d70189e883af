#include "base/text.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/preparation.h"

#include <tarnsdk/volume.h>

#include <memory>

namespace tarn::ctl {

namespace {

Json::Value VolumeToJson(const std::string& volume, const TARNMountVolInfo* record) {
	Json::Value object(Json::objectValue);
	object["volume"] = volume.empty() ? Json::Value() : Json::Value(volume);
	object["available"] = record != nullptr;
	object["safe"] = record != nullptr && VolumeProblem(volume).empty();
	object["writable"] = record != nullptr && record->writable != 0;
	object["free_bytes"] = record == nullptr ? Json::Value() : Json::Value(Json::UInt64{record->free_bytes});
	object["total_bytes"] = record == nullptr ? Json::Value() : Json::Value(Json::UInt64{record->total_bytes});
	return object;
}

std::string VolumeToText(const std::string& volume, const TARNMountVolInfo* record) {
	if (volume.empty()) {
		return "No volume is in use; \"tarndbudctl init\" chooses one.\n";
	}
	if (record == nullptr) {
		return volume + " is in use, but is not available now.\n";
	}
	const std::string problem = VolumeProblem(volume);
	return volume + ": " + HumanSize(record->free_bytes) + " of " + HumanSize(record->total_bytes) + " free" +
	       (record->writable != 0 ? "" : ", not writable") + (problem.empty() ? "" : ", not safe: " + problem) + "\n";
}

ExitCode Run(const Services& services, const Options& options) {
	const std::string volume = services.config->GetCurVolume();
	const auto record = std::make_unique<TARNMountVolInfo>();
	const bool available = !volume.empty() && TARNMountVolInfoGet(volume.c_str(), record.get()) == 0;
	const TARNMountVolInfo* shown = available ? record.get() : nullptr;
	Answer(services, options, VolumeToText(volume, shown), VolumeToJson(volume, shown));
	return kDone;
}

} // namespace

const Command kVolumeShowCommand = {
    "volume show", "Show the volume that holds the databases", nullptr, {}, false, false, DeclareJsonObject, Run};

} // namespace tarn::ctl
