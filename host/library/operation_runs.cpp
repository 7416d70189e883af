#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "dataupdate/update_error.h"
#include "host/library/hold.h"
#include "host/library/install_place.h"
#include "host/library/operation.h"
#include "host/library/preparation.h"
#include "host/library/rejection.h"

#include <syslog.h>

#include <exception>
#include <utility>

namespace tarn::ctl {

namespace {

void RequirePlaces(const Services& services, const std::string& id) {
	RequireNoLostVolume(services);
	RequireSafePlaces(services, id);
}

/** The version that is installed then; none when there was nothing to finish. */
std::optional<int> Finish(const Services& services, const std::string& id) {
	if (!FindPrepared(services, id)) {
		return std::nullopt;
	}
	Operation operation(services, id, Change::kFinish, [&] { RequireVolumeFor(services, id); });
	operation.Front().UpdateProject(id);
	return operation.Result().installed;
}

/** Without success the operation that follows does what it would have done, unless a later try is better for it. */
std::optional<int> TryToFinish(const Services& services, const std::string& id, bool is_asked_for) {
	try {
		return dataupdate::MayBeAMixture(id) ? Finish(services, id) : std::nullopt;
	} catch (const std::exception& error) {
		if (dataupdate::IsInterruptionRequested()) {
			throw;
		}
		if (is_asked_for && CategoryOf(error.what()) == Category::kLocked) {
			throw CommandError(kLocked, "The replacement of its files that was killed has to be finished first, and a "
			                            "lock was not obtained in time (" +
			                                std::string(error.what()) + "); try later");
		}
		syslog(
		    LOG_WARNING, "The replacement of '%s' that was killed could not be finished: %s", id.c_str(), error.what());
	}
	return std::nullopt;
}

Outcome Update(Operation& operation, const std::string& id) {
	std::optional<Refusal> refusal;
	try {
		operation.Front().UpdateProject(id);
	} catch (const Refusal& thrown) {
		refusal = thrown;
	}
	Outcome outcome = operation.Result();
	outcome.refusal = refusal;
	return outcome;
}

} // namespace

dataupdate::InstalledRecord Operation::ReadHere() {
	install_prefix_ = services_.config->GetDatabaseConfig(id_)->GetInstallPrefix();
	dataupdate::InstalledRecord recorded = ReadRecorded(services_, id_);
	outcome_.old_place = FindOldPlace(services_, id_, recorded);
	return outcome_.old_place ? dataupdate::InstalledRecord() : std::move(recorded);
}

std::optional<int> FindPrepared(const Services& services, const std::string& id) {
	const std::optional<int> version = FindPreparedEvenHeld(services, id);
	const std::optional<Hold> hold = ReadHold(id);
	return version && hold && !hold->Allows(*version) ? std::nullopt : version;
}

CommandError MadeLinkError(const std::string& message, int offered, int target) {
	return {kFailed, message + "; this is the server's link with each " + std::to_string(offered) +
	                     " in it, host and port included, replaced by " + std::to_string(target) +
	                     ": check that the server still has that version"};
}

void FinishPrepared(const Services& services, const std::string& asked_for, const NoteFinished& note) {
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		if (const std::optional<int> version = TryToFinish(services, id, id == asked_for)) {
			note(id, *version);
		}
	}
}

Outcome UpdateDatabase(const Services& services, const std::string& id, const Budget& budget, RefusedVersion refused) {
	Operation operation(services, id, Change::kUpdate, [&] { RequirePlaces(services, id); });
	operation.Limit(budget);
	operation.Treat(refused);
	Outcome outcome = Update(operation, id);
	// Asked for only where a terminal shows it, and only when everything is recorded: it may take a while.
	if (!operation.SparedLink().empty() && services.terminal.Draws() && services.package_size) {
		outcome.full_package_bytes = services.package_size(operation.SparedLink());
	}
	return outcome;
}

Outcome ImportDatabase(const Services& services, const std::string& id, bool goes_back, RefusedVersion refused) {
	Operation operation(services, id, Change::kUpdate, [&] { RequirePlaces(services, id); });
	operation.Treat(goes_back ? Older::kInstalled : Older::kRefused);
	operation.Treat(refused);
	return Update(operation, id);
}

Outcome FixDatabase(const Services& services, const std::string& id) {
	Operation operation(services, id, Change::kFix, [&] { RequireVolumeFor(services, id); });
	const Outcome& found = operation.Result();
	try {
		// Asks the check again, whatever it said before: a person wants it, or there is nothing better to be had.
		operation.Front().FixProject(id);
	} catch (const dataupdate::UpdateError& error) {
		const int target = found.held_at.value_or(found.offered);
		RememberRejection(id, target, error.what());
		if (target == found.offered || CategoryOf(error.what()) != Category::kDownload) {
			throw;
		}
		throw MadeLinkError(error.what(), found.offered, target);
	}
	return found;
}

Outcome ForceDatabase(const Services& services, const std::string& id, int version, int target, bool even_held) {
	const auto check = [&] {
		RequireVolumeFor(services, id);
		if (!even_held) {
			RequireNotHeld(id, target);
		}
	};
	Operation operation(services, id, Change::kForced, check, target);
	operation.Front().ForceInstall(id, version);
	return operation.Result();
}

} // namespace tarn::ctl
