#include "base/text.h"
#include "publisher/changes/changes.h"
#include "publisher/site/page_parts.h"
#include "publisher/site/pages.h"
#include "publisher/site/plot.h"

#include <algorithm>
#include <numeric>

namespace tarn::publisher::site {

namespace {

constexpr const char* kRoot = "../../";

/** What is to be said of a version besides its sizes. */
void SayState(const Database& database, const Version& version, Markup& page) {
	for (const std::string& channel : database.ChannelsOf(version.number)) {
		page.Leaf("span", {{"class", "badge good"}}, "channel " + channel).Say(" ");
	}
	if (version.is_withdrawn) {
		const std::string by = version.withdrawn_by ? " by " + std::to_string(*version.withdrawn_by) : "";
		page.Leaf("span", {{"class", "badge bad"}}, "withdrawn" + by).Say(" ");
	}
	if (version.restores) {
		page.Leaf("span", {{"class", "badge"}}, "content of " + std::to_string(*version.restores)).Say(" ");
	}
	if (database.compared.count(version.number) > 0) {
		page.Leaf("a", {{"href", ChangesName(version.number)}}, "changes");
	}
}

void WriteVersion(const Database& database, const Version& version, Markup& page) {
	const std::string number = std::to_string(version.number);
	const auto size = [&](const std::optional<std::uint64_t>& bytes) {
		page.Leaf("td", {{"class", "number"}}, ShownSize(bytes));
	};
	page.Begin("tr", {{"id", "v" + number}}).Leaf("th", {{"scope", "row"}}, number);
	page.Begin("td");
	SayTime(version.published, page);
	page.End();
	size(version.full_size);
	size(version.diff_size);
	size(version.full_size ? std::optional(version.unpacked_size) : std::nullopt);
	page.Begin("td");
	SayState(database, version, page);
	page.End().Leaf("td", {{"class", "notes"}}, version.notes).End().Line();
}

void WriteVersions(const Database& database, std::size_t most, Markup& page) {
	BeginTable(page, "Versions, the newest first",
	    {{"Version"}, {"Published"}, {"Full package", "number"}, {"Diff package", "number"}, {"Unpacked", "number"},
	        {"State"}, {"Notes"}});
	const std::size_t shown = std::min(most, database.versions.size());
	for (std::size_t i = 0; i < shown; ++i) {
		WriteVersion(database, database.versions[i], page);
	}
	EndTable(page);
}

Series SizesOf(
    const Database& database, const char* name, const char* style, const std::optional<std::uint64_t> Version::*size) {
	Series series = {name, style, {}};
	for (auto version = database.versions.rbegin(); version != database.versions.rend(); ++version) {
		if (const std::optional<std::uint64_t>& bytes = (*version).*size) {
			series.points.push_back({version->number, *bytes});
		}
	}
	return series;
}

void DrawSizes(const Database& database, Markup& page) {
	Plot plot;
	plot.id = "sizes";
	plot.title = "Package sizes by version";
	plot.description = "The scale rises by powers of ten. The table of versions has the same sizes as numbers.";
	plot.across = "version";
	plot.up = "size of a package";
	plot.is_logarithmic = true;
	plot.series = {SizesOf(database, "full package", "full", &Version::full_size),
	    SizesOf(database, "diff package", "diff", &Version::diff_size)};
	Draw(plot, page);
}

/** What a device downloads by how many versions it is behind: the chain as far as it goes, then the full package. */
Series DownloadsOf(const Offer& offer, const std::optional<std::uint64_t>& full, int most) {
	Series series = {"download of the device", "diff", {}};
	std::uint64_t sum = 0;
	for (int behind = 1; behind <= most; ++behind) {
		const bool has_chain = static_cast<std::size_t>(behind) <= offer.chain.size();
		sum += has_chain ? offer.chain[static_cast<std::size_t>(behind) - 1] : 0;
		if (has_chain || full) {
			series.points.push_back({behind, has_chain ? sum : *full});
		}
	}
	return series;
}

std::string DownloadText(const Offer& offer, const std::optional<std::uint64_t>& full) {
	const std::uint64_t sum = std::accumulate(offer.chain.begin(), offer.chain.end(), std::uint64_t{0});
	std::string text = "Channel " + offer.channel + ", version " + std::to_string(offer.entry.data_version) + ": ";
	if (offer.chain.empty() && full) {
		return text + "all devices take the full package of " + HumanSize(*full) + ".";
	}
	if (!offer.chain.empty()) {
		text += "one version behind " + HumanSize(offer.chain.front());
		text +=
		    offer.chain.size() == 1 ? "" : ", " + Counted(offer.chain.size(), "version") + " behind " + HumanSize(sum);
		text += " by diff packages; ";
	}
	return text + (full ? "devices that are further behind take the full package of " + HumanSize(*full) + "."
	                    : "there is no full package.");
}

void DrawDownloads(const Database& database, Markup& page) {
	const Offer* offer = database.MainOffer();
	if (offer == nullptr) {
		return;
	}
	const Version* version = database.Find(offer->entry.data_version);
	const std::optional<std::uint64_t> full = version != nullptr ? version->full_size : std::nullopt;
	constexpr int kPart = 5; // of the chain's length goes on to show what follows it
	const int chain = static_cast<int>(offer->chain.size());
	const int most = chain + std::max(2, chain / kPart);
	Plot plot;
	plot.id = "downloads";
	plot.title = "Download by versions behind";
	plot.description = DownloadText(*offer, full);
	plot.across = "versions behind";
	plot.up = "size of the download";
	if (full) {
		plot.series.push_back({"full package, for comparison", "full", {{1, *full}, {most, *full}}, true});
	}
	plot.series.push_back(DownloadsOf(*offer, full, most));
	Draw(plot, page);
}

void WriteOffers(const Database& database, Markup& page) {
	BeginFacts(page);
	for (const Offer& offer : database.offers) {
		const std::string state = offer.is_deprecated ? " (deprecated)" : "";
		page.Begin("div").Leaf("dt", "Channel " + offer.channel).Begin("dd");
		page.Say("version " + std::to_string(offer.entry.data_version) + state + ", ");
		const std::string link = WebLink(offer.entry.download_link);
		if (link.empty()) {
			page.Say("no link");
		} else {
			page.Leaf("a", {{"href", link}, {"rel", "noreferrer"}}, "full package");
		}
		page.End().End().Line();
	}
	AddFact(page, "Versions", std::to_string(database.versions.size()));
	if (!database.versions.empty() && database.versions.front().full_size) {
		const Version& newest = database.versions.front();
		AddFact(
		    page, "Newest version, unpacked", HumanSize(newest.unpacked_size) + " in " + Counted(newest.files, "file"));
	}
	page.End().Line();
}

} // namespace

std::string DatabasePage(const Catalogue& catalogue, const Database& database) {
	Page page(catalogue, database.id, kRoot);
	Markup& body = page.Body();
	if (database.offers.empty()) {
		body.Leaf("p", {{"class", "warning"}}, "No channel offers this database.").Line();
	}
	WriteOffers(database, body);
	if (!database.versions.empty()) {
		body.Begin("div", {{"class", "plots"}}).Line();
		body.Begin("section");
		DrawSizes(database, body);
		body.End().Begin("section");
		DrawDownloads(database, body);
		body.End().End().Line();
	}
	body.Leaf("h2", "Versions").Line();
	WriteVersions(database, kVersionsOnPage, body);
	if (database.versions.size() > kVersionsOnPage) {
		const std::string all = "All " + std::to_string(database.versions.size()) + " versions";
		body.Begin("p").Leaf("a", {{"href", "versions.html"}}, all).End().Line();
	}
	return page.Finish();
}

std::string VersionsPage(const Catalogue& catalogue, const Database& database) {
	Page page(catalogue, "Versions of " + database.id, kRoot);
	page.Body().Begin("p").Leaf("a", {{"href", "index.html"}}, "Back to " + database.id).End().Line();
	WriteVersions(database, database.versions.size(), page.Body());
	return page.Finish();
}

std::string ChangesPage(const Catalogue& catalogue, const Database& database, const Version& version, int from,
    const std::string& changes) {
	const std::string number = std::to_string(version.number);
	Page page(catalogue, "What version " + number + " of " + database.id + " changes", kRoot);
	Markup& body = page.Body();
	body.Begin("p").Leaf("a", {{"href", "index.html#v" + number}}, database.id);
	body.Say(", compared with version " + std::to_string(from) + "; published ");
	SayTime(version.published, body);
	body.Say(".").End().Line();
	if (!version.notes.empty()) {
		body.Leaf("p", {{"class", "notes"}}, version.notes).Line();
	}
	body.Paste(changes);
	return page.Finish();
}

} // namespace tarn::publisher::site
