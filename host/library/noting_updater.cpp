#include "host/library/noting_updater.h"

#include <utility>

namespace tarn::ctl {

NotingUpdater::NotingUpdater(UpdateNotes notes) : notes_(std::move(notes)) {}

dataupdate::DatabaseStatus NotingUpdater::Update(const std::string& id, const dataupdate::DatabaseStatus& status,
    const dataupdate::RemoteInfo& remote, const std::map<int, dataupdate::DiffInfo>& diffs, const std::string& volume,
    const std::string& installPrefix, const std::string& rootDirectory) const {
	notes_->reset();
	dataupdate::UpdateResult result = UpdateAndTell(id, status, remote, diffs, volume, installPrefix, rootDirectory);
	*notes_ = UpdateNote{id, std::move(result.files), result.is_full};
	return std::move(result.status);
}

} // namespace tarn::ctl
