#include "base/handle.h"
#include "platform/c_boundary.h"
#include "platform/tarnsdk/volume_list.h"

#include <tarnsdk/volume.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>

namespace {

using tarn::sdk::ListVolumes;
using tarn::sdk::Volume;
using tarn::sdk::VolumeSources;

/** Links the records up from the last to the first. */
TARNMountVolInfo* MakeList(const std::vector<Volume>& volumes) {
	tarn::Handle<TARNMountVolInfo, TARNMountVolInfoFree> list;
	for (auto volume = volumes.rbegin(); volume != volumes.rend(); ++volume) {
		auto node = std::make_unique<TARNMountVolInfo>(volume->record);
		node->next = list.release();
		list.reset(node.release());
	}
	return list.release();
}

/** The volume with the path into the record; 0 or an errno value. */
int FindVolume(const std::string& path, TARNMountVolInfo& record) {
	std::vector<Volume> volumes;
	if (const int error = ListVolumes(VolumeSources(), volumes); error != 0) {
		return error;
	}
	const auto found = std::find_if(
	    volumes.begin(), volumes.end(), [&](const Volume& volume) { return path == volume.record.mount_path; });
	if (found == volumes.end()) {
		return ENODEV;
	}
	record = found->record;
	return found->error;
}

} // namespace

TARNMountVolInfo* TARNMountVolAllEnum(int /*kind*/, int /*mounted_only*/, int /*flags*/) {
	try {
		std::vector<Volume> volumes;
		const int error = ListVolumes(VolumeSources(), volumes);
		if (error == 0 && !volumes.empty()) {
			return MakeList(volumes);
		}
		TLIBCErrSet(error != 0 ? error : ENODEV);
	} catch (const std::exception&) {
		TLIBCErrSet(ENOMEM);
	}
	return nullptr;
}

int TARNMountVolInfoGet(const char* path, TARNMountVolInfo* record) {
	return tarn::WithoutExceptions([&] {
		const int error = path != nullptr && record != nullptr ? FindVolume(path, *record) : EINVAL;
		return error == 0 ? 0 : tarn::Fail(error);
	});
}

void TARNMountVolInfoFree(TARNMountVolInfo* list) {
	while (list != nullptr) { // Node by node, so that a long list doesn't recurse.
		const std::unique_ptr<TARNMountVolInfo> head(list);
		list = head->next;
	}
}

int TARNVolumeServicePolicy(const TARNMountVolInfo* record) {
	try {
		using tarn::sdk::MayHostServiceData;
		return record != nullptr && MayHostServiceData(tarn::kVolumeSettingsPath, record->mount_path) ? 1 : 0;
	} catch (const std::exception&) {
		return 0;
	}
}
