#include "publisher/packages/device.h"

#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/file_digest.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/internal/patcher.h"
#include "dataupdate/internal/sql_script.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

namespace tarn::publisher {

namespace {

template<typename Function>
void AsDevice(const Function& function) {
	try {
		function();
	} catch (const dataupdate::UpdateError& error) {
		throw DeviceError(error.what());
	}
}

} // namespace

const std::uint64_t kMaxDescriptionBytes = dataupdate::kMaxDescriptionBytes;

std::string WorkingCopyName(const std::string& name) {
	return dataupdate::FlatFileName(name);
}

void CopyFile(const std::string& source, const std::string& copy) {
	AsDevice([&] { dataupdate::CopyRegularFile(source, copy); });
}

std::string DigestOf(const std::string& path) {
	return dataupdate::FileSha384(path);
}

void ExecuteScript(const std::string& database, const std::string& script) {
	constexpr auto kTrialTime = dataupdate::kMaxScriptTime / 10;
	AsDevice([&] { dataupdate::ExecuteSqlScript(database, script, kTrialTime); });
}

DevicePatcher::DevicePatcher(const std::string& copies, const std::string& tree, const Decoder& decoder)
    : tree_(tree), patcher_(std::make_unique<dataupdate::Patcher>(copies, tree, decoder)) {}

DevicePatcher::~DevicePatcher() = default;

void DevicePatcher::Apply(const std::string& package) {
	AsDevice([&] { patcher_->ApplyPackage(package); });
}

void DevicePatcher::CheckConflicts() const {
	AsDevice([&] { dataupdate::CheckConflicts(patcher_->Modifications(), tree_); });
}

void DevicePatcher::Install() {
	AsDevice([&] { patcher_->Install(patcher_->CheckedChanges()); });
}

} // namespace tarn::publisher
