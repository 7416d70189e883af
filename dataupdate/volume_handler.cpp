#include "dataupdate/volume_handler.h"

#include "base/handle.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <tarncore/tarncore.h>
#include <tarnsdk/volume.h>

#include <boost/filesystem.hpp>

#include <cstdint>
#include <stdexcept>
#include <utility>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

constexpr char kLogSource[] = "volume_handler.cpp";
constexpr char kMove[] = "/bin/mv";

} // namespace

VolumeHandler::VolumeHandler(std::shared_ptr<ServiceConfig> service_config)
    : service_config_(std::move(service_config)) {}

VolumeHandler::~VolumeHandler() = default;

void VolumeHandler::InitVolume() const {
	if (!service_config_->GetCurVolume().empty()) {
		return;
	}
	try {
		const std::string volume = FindSuitableVolume("");
		CreateDirectories(GetMainDirPath(volume));
		service_config_->SetCurVolume(volume);
		TARN_LOG(LOG_WARNING, "Autoupdate set the new volume at '%s'.", volume.c_str());
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_INFO, "Failed to init volume: %s", error.what());
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to init volume for the Autoupdate: %s", error.what());
	}
}

void VolumeHandler::UnmountVolumeEvent(const std::string& volume) const {
	if (service_config_->GetCurVolume() != volume) {
		TARN_LOG(LOG_DEBUG, "Ignoring the uninteresting event of '%s'.", volume.c_str());
		return;
	}
	// At once, so that nothing uses the leaving volume from now on.
	service_config_->SetCurVolume("");
	try {
		const std::string new_volume = FindSuitableVolume(volume);
		// One after the other: a compiler may evaluate arguments in any order.
		const std::string from = GetMainDirPath(volume);
		const std::string to = GetMainDirPath(new_volume);
		_MoveDatabases(from, to);
		service_config_->SetCurVolume(new_volume);
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_INFO, "Autoupdate for DBs using volume is going to be disabled normally: %s", error.what());
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Autoupdate failed to handle unmount volume event: %s", error.what());
	}
}

void VolumeHandler::MountVolumeEvent(const std::string& volume) const {
	if (!service_config_->GetCurVolume().empty()) {
		TARN_LOG(LOG_DEBUG, "Ignoring the uninteresting event of '%s'.", volume.c_str());
		return;
	}
	TARNMountVolInfo record{};
	if (TARNMountVolInfoGet(volume.c_str(), &record) == -1) {
		TARN_LOG(LOG_ERR, "Failed to get volume info for '%s'.", volume.c_str());
		return;
	}
	const std::string main_dir = GetMainDirPath(volume);
	try {
		if (!IsSuitable(&record, -1)) {
			return;
		}
		CreateDirectories(main_dir);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Ignoring the mount event of '%s': %s", volume.c_str(), error.what());
		return;
	}
	service_config_->SetCurVolume(volume);
}

// By value, as the interface has it. NOLINTNEXTLINE(performance-unnecessary-value-param)
std::string VolumeHandler::FindSuitableVolume(std::string exclude) const {
	const long total = _TotalReserve();
	const Handle<TARNMountVolInfo, TARNMountVolInfoFree> list(TARNMountVolAllEnum(0, 1, 0));
	if (!list) {
		throw UpdateError((NoexceptFormat(std::string(messages::kCannotListVolumes) + "%x") % TLIBCErrGet()).str());
	}
	for (const TARNMountVolInfo* record = list.get(); record != nullptr; record = record->next) {
		if (record->mount_path != exclude && IsSuitable(record, total)) {
			return record->mount_path;
		}
	}
	throw UpdateError(messages::kNoSuitableVolume);
}

std::string VolumeHandler::GetMainDirPath(const std::string& volume) const {
	return MainDirPath(volume);
}

void VolumeHandler::CreateDirectories(const std::string& path) const {
	boost::system::error_code error;
	fs::create_directories(path, error);
	if (error) {
		throw UpdateError((NoexceptFormat("Failed to create '%s': %s") % path % error.message()).str());
	}
}

bool VolumeHandler::IsSuitable(const void* volumeInfo, long requiredBytes) const {
	const auto* record = static_cast<const TARNMountVolInfo*>(volumeInfo);
	const long required = requiredBytes < 0 ? _TotalReserve() : requiredBytes;
	return (record->flags & TARN_VOLUME_FLAG_DATA) != 0 && TARNVolumeServicePolicy(record) != 0 &&
	       record->free_bytes >= static_cast<std::uint64_t>(required) && record->healthy != 0 && record->writable != 0;
}

long VolumeHandler::_TotalReserve() const {
	long total = 0;
	for (const std::string& id : service_config_->GetDatabaseIDs()) {
		const unsigned long reserve = service_config_->GetDatabaseConfig(id)->GetMinReservedSpaceInbytes();
		if (__builtin_add_overflow(total, reserve, &total)) {
			throw std::runtime_error(messages::kReserveOverflow);
		}
	}
	return total;
}

void VolumeHandler::_MoveDatabases(const std::string& from, const std::string& to) const {
	TARN_LOG(LOG_WARNING, "Moving databases from %s to %s", from.c_str(), to.c_str());
	if (fs::exists(fs::status(to))) {
		fs::remove(to);
	} else {
		CreateDirectories(to.substr(0, to.rfind('/')));
	}
	if (TLIBCExec(kMove, from.c_str(), to.c_str(), nullptr, nullptr) < 0) {
		throw std::runtime_error("Failed to move databases.");
	}
}

} // namespace tarn::dataupdate
