#include "host/library/volume_move.h"

#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"
#include "host/library/failure.h"
#include "host/library/safe_places.h"

#include <syslog.h>

#include <utility>

namespace tarn::ctl {

VolumeMove::VolumeMove(const Services& services, std::string volume)
    : VolumeHandler(services.config), services_(services), volume_(std::move(volume)) {}

std::string VolumeMove::FindSuitableVolume(std::string exclude) const {
	try {
		target_ = VolumeHandler::FindSuitableVolume(std::move(exclude));
		Begin();
	} catch (...) {
		cause_ = std::current_exception();
		throw;
	}
	return target_;
}

VolumeMove::Outcome VolumeMove::Run() {
	UnmountVolumeEvent(volume_);
	if (cause_) {
		return JudgeCause();
	}
	if (target_.empty()) {
		return Outcome::kNoTarget;
	}
	const Outcome outcome = Judge();
	if (outcome == Outcome::kMoved || outcome == Outcome::kCopied) {
		Settle();
	} else if (outcome == Outcome::kStayed) {
		TakeBack();
	}
	return outcome;
}

void VolumeMove::Begin() const {
	RequireSafeVolume(target_);
	before_ = ContentBelow(GetMainDirPath(volume_));
	target_is_free_ = ContentBelow(GetMainDirPath(target_)) == Content();
	marked_ = MarkInstalled(services_);
}

VolumeMove::Outcome VolumeMove::JudgeCause() const {
	std::string reason;
	try {
		std::rethrow_exception(cause_);
	} catch (const std::exception& error) {
		if (error.what() == std::string("Cannot find suitable volume.")) {
			return Outcome::kNoTarget;
		}
		reason = ExplainException(*services_.io).sentence;
	}
	throw CommandError(kFailed,
	    "The databases stay on " + volume_ + ", and no volume is in use, for they could not be moved: " + reason);
}

/** Everything is copied before anything is deleted, so one of the two is whole unless the file system fails. */
VolumeMove::Outcome VolumeMove::Judge() const {
	if (!services_.config->GetCurVolume().empty()) {
		return Outcome::kMoved;
	}
	if (!before_) {
		return Outcome::kDivided;
	}
	if (target_is_free_ && !before_->empty() && ContentBelow(GetMainDirPath(target_)) == before_) {
		return Outcome::kCopied;
	}
	return ContentBelow(GetMainDirPath(volume_)) == before_ ? Outcome::kStayed : Outcome::kDivided;
}

void VolumeMove::Settle() const {
	// The originals are gone, so the copies must not be in memory alone.
	dataupdate::SyncFileSystem(GetMainDirPath(target_));
	services_.config->SetCurVolume(target_);
	const std::set<std::string> failed = LetRecordsFollow(services_, target_);
	for (const std::string& id : marked_) {
		if (failed.count(id) == 0) {
			Unmark({id});
		}
	}
}

void VolumeMove::TakeBack() const {
	Unmark(marked_);
	if (!target_is_free_) {
		return;
	}
	try {
		services_.io->RmRf(GetMainDirPath(target_));
	} catch (const dataupdate::UpdateError& error) {
		syslog(LOG_WARNING, "What was copied could not be removed: %s", error.what());
	}
}

} // namespace tarn::ctl
