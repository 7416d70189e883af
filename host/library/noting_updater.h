/** @file An Updater that notes what it changed. */
#ifndef HOST_LIBRARY_NOTING_UPDATER_H
#define HOST_LIBRARY_NOTING_UPDATER_H

#include "dataupdate/updater.h"

#include <memory>
#include <optional>
#include <set>
#include <string>

namespace tarn::ctl {

/** What the last update changed. */
struct UpdateNote {
	std::string id;
	std::set<std::string> files; ///< As in UpdateResult.
	bool is_full = false;
};

/** One process runs one update at a time, so there is one note, none before the first update. */
using UpdateNotes = std::shared_ptr<std::optional<UpdateNote>>;

/** Not for use by several threads at once. */
class NotingUpdater : public dataupdate::Updater {
public:
	explicit NotingUpdater(UpdateNotes notes);

	/** A failed update leaves no note. */
	dataupdate::DatabaseStatus Update(const std::string& id, const dataupdate::DatabaseStatus& status,
	    const dataupdate::RemoteInfo& remote, const std::map<int, dataupdate::DiffInfo>& diffs,
	    const std::string& volume, const std::string& installPrefix, const std::string& rootDirectory) const override;

private:
	UpdateNotes notes_;
};

} // namespace tarn::ctl

#endif
