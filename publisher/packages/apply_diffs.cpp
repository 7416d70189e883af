#include "publisher/packages/apply_diffs.h"

#include "decoder/decode.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/device.h"
#include "publisher/packages/diff_package.h"

#include <exception>
#include <filesystem>
#include <functional>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

void DecodePatch(const std::string& source, const std::string& output, const std::string& patch) {
	decoder::DecodeFile(source, output, patch);
}

void DoAsDevices(const std::function<void()>& step) {
	try {
		step();
	} catch (const std::exception& error) {
		throw PublishError(std::string("devices could not apply it: ") + error.what());
	}
}

} // namespace

void ApplyDiffs(const PackageReader& reader, const std::string& id, const std::vector<DiffStep>& steps,
    const std::string& directory, const WorkDirectory& work) {
	if (steps.empty()) {
		return;
	}
	const std::string copies = work.Make("apply-copies");
	DevicePatcher patcher(copies, directory, DecodePatch);
	for (const DiffStep& step : steps) {
		const std::string package = work.Make("apply-package");
		reader.Unpack(step.path, {id, "", step.version, kDiffKind}, package);
		DoAsDevices([&] { patcher.Apply(package); });
		fs::remove_all(package);
	}
	DoAsDevices([&] { patcher.Install(); });
	fs::remove_all(copies);
}

} // namespace tarn::publisher
