#include "base/file_io.h"
#include "dataupdate/installation.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/checked_info_getter.h"
#include "host/library/failure.h"
#include "host/library/hold.h"
#include "host/library/installed_package.h"
#include "host/library/last_document.h"
#include "host/library/run_record.h"
#include "host/library/services.h"
#include "host/terminal/text.h"

#include <tarnsdk/volume.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace tarn::ctl {

namespace {

/** What the server offered last, of which a fetch that failed since has left no document. */
struct Offer {
	std::optional<LastDocument> document;
	std::map<std::string, RunRecord> runs; ///< The last ones, by database.

	std::optional<int> VersionOf(const std::string& id) const {
		if (document) {
			return OfferedVersion(*document, id);
		}
		const auto run = runs.find(id);
		return run == runs.end() ? std::nullopt : run->second.offered_version;
	}
	std::optional<std::int64_t> Time() const {
		if (document) {
			return document->time;
		}
		std::optional<std::int64_t> latest;
		for (const auto& [id, run] : runs) {
			latest = std::max(latest, run.document_time);
		}
		return latest;
	}
};

Offer ReadOffer(const Services& services) {
	Offer offer = {ReadLastDocument(*services.io, kMomentSeconds), {}};
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		if (std::optional<RunRecord> run = ReadRunRecord(id)) {
			offer.runs.emplace(id, std::move(*run));
		}
	}
	return offer;
}

void MeasureInstalled(const Services& services, Metrics& metrics, const std::optional<int>& offered,
    const std::string& id, const Labels& labels) {
	const dataupdate::InstalledRecord status = ReadInstalled(services, id);
	const bool installed = status.data_version != -1;
	metrics.Add("tarndbud_installed", "Whether any version of the database is installed.", labels, installed);
	if (!installed) {
		return;
	}
	metrics.Add("tarndbud_installed_version", "Installed data version.", labels, status.data_version);
	if (offered) {
		const bool is_above = status.data_version > *offered && !dataupdate::IsReplacementMarked(id);
		metrics.Add("tarndbud_above_offered", "Whether a later version is installed than the server offered last.",
		    labels, is_above);
	}
	if (const std::optional<std::int64_t> published = PublicationTime(id, status.data_version)) {
		metrics.Add(
		    "tarndbud_data_timestamp_seconds", "When the publisher signed the installed data.", labels, *published);
		metrics.Add("tarndbud_data_age_seconds", "Age of the installed data when this was written.", labels,
		    std::time(nullptr) - *published);
	}
	const auto config = services.config->GetDatabaseConfig(id);
	if (config->GetRootDirectory().empty()) {
		return;
	}
	if (const std::optional<std::uintmax_t> bytes = InstalledBytes(services, id, config->GetInstallPrefix())) {
		metrics.Add("tarndbud_installed_bytes", "Size of the installed files.", labels, *bytes);
	}
}

void MeasureLastRun(Metrics& metrics, const std::string& id, const RunRecord& record) {
	const Labels labels = {{"database", id}, {"operation", record.operation}};
	metrics.Add("tarndbud_last_run_success", "Whether the last operation on the database succeeded.", labels,
	    record.exit_status == kDone);
	metrics.Add("tarndbud_last_run_beyond_budget",
	    "Whether the last operation on the database did nothing because it would have downloaded too much.", labels,
	    record.exit_status == kBeyondBudget);
	metrics.Add("tarndbud_last_run_exit_status", "Exit status of the last operation on the database.", labels,
	    record.exit_status);
	metrics.Add(
	    "tarndbud_last_run_timestamp_seconds", "When the last operation on the database ended.", labels, record.time);
	metrics.Add("tarndbud_last_run_duration_seconds", "How long the last operation on the database took.", labels,
	    record.seconds);
	metrics.Add("tarndbud_last_run_downloaded_bytes", "What the last operation on the database downloaded.", labels,
	    record.downloaded_bytes);
	metrics.Add("tarndbud_downloaded_bytes_total", "What all operations on the database downloaded.",
	    {{"database", id}}, record.downloaded_total);
	if (!record.failure.empty()) {
		metrics.Add("tarndbud_last_run_failure", "1, with the category of the failure of the last operation.",
		    {{"database", id}, {"operation", record.operation}, {"category", record.failure}}, 1);
	}
}

void MeasureHold(Metrics& metrics, const std::string& id, const Labels& labels) {
	const std::optional<Hold> hold = ReadHold(id);
	metrics.Add(
	    "tarndbud_held", "Whether the administrator holds the database at a version.", labels, hold.has_value());
	if (hold && hold->up_to) {
		metrics.Add(
		    "tarndbud_held_up_to", "The highest version that a held database may be updated to.", labels, *hold->up_to);
	}
}

ExitCode MeasureDatabase(const Services& services, Metrics& metrics, const Offer& offer, const std::string& id) {
	const Labels labels = {{"database", id}};
	const std::optional<int> offered = offer.VersionOf(id);
	if (offered) {
		metrics.Add("tarndbud_offered_version", "Data version in the server's last document.", labels, *offered);
	}
	if (const auto run = offer.runs.find(id); run != offer.runs.end()) {
		MeasureLastRun(metrics, id, run->second);
	}
	metrics.Add("tarndbud_scheduled", "Whether scheduled updates include the database.", labels,
	    services.config->GetDatabaseConfig(id)->GetScheduled());
	MeasureHold(metrics, id, labels);
	MeasureInstalled(services, metrics, offered, id, labels);
	return kDone;
}

void MeasureVolume(const Services& services, Metrics& metrics) {
	const std::string volume = services.config->GetCurVolume();
	const auto record = std::make_unique<TARNMountVolInfo>();
	const bool available = !volume.empty() && TARNMountVolInfoGet(volume.c_str(), record.get()) == 0;
	metrics.Add("tarndbud_volume_available", "Whether a storage volume is in use and answers.", {}, available);
	if (available) {
		const Labels labels = {{"volume", volume}};
		metrics.Add("tarndbud_volume_free_bytes", "Free space on the volume in use.", labels, record->free_bytes);
		metrics.Add("tarndbud_volume_size_bytes", "Size of the volume in use.", labels, record->total_bytes);
	}
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("--output", options.path, "Replace this file as a whole instead of printing");
}

ExitCode Run(const Services& services, const Options& options) {
	Metrics metrics;
	const Offer offer = ReadOffer(services);
	if (const std::optional<std::int64_t> time = offer.Time()) {
		metrics.Add("tarndbud_document_timestamp_seconds", "When the server's last document was fetched.", {}, *time);
	}
	MeasureVolume(services, metrics);
	const ExitCode code = ForEachDatabase(services, services.config->GetDatabaseIDs(),
	    [&](const std::string& id) { return MeasureDatabase(services, metrics, offer, id); });
	if (options.path.empty()) {
		services.terminal.Say(metrics.Text());
	} else {
		WriteWholeFile(options.path, metrics.Text());
	}
	return code;
}

} // namespace

const Command kMetricsCommand = {"metrics", "Print measurements for Prometheus",
    "For the text-file collector of a node exporter, for example with --output\n"
    "/var/lib/prometheus/node-exporter/tarndbud.prom. Uses no network: the offered versions are those of the server's "
    "last\n"
    "document, whose time is printed as well.",
    {}, true, false, Declare, Run};

} // namespace tarn::ctl
