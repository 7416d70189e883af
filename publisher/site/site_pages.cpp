#include "base/text.h"
#include "publisher/changes/changes.h"
#include "publisher/site/page_parts.h"
#include "publisher/site/pages.h"

#include <algorithm>
#include <sstream>
#include <tuple>

namespace tarn::publisher::site {

namespace {

/** The version that the main channel offers, else the newest one that is there; null when there is none. */
const Version* ShownVersion(const Database& database) {
	const Offer* offer = database.MainOffer();
	const Version* offered = offer != nullptr ? database.Find(offer->entry.data_version) : nullptr;
	return offered != nullptr ? offered : database.versions.empty() ? nullptr : &database.versions.front();
}

void WriteDatabase(const Database& database, Markup& page) {
	const Version* version = ShownVersion(database);
	page.Begin("tr").Begin("th", {{"scope", "row"}});
	page.Leaf("a", {{"href", DatabasePath(database) + "index.html"}}, database.id);
	if (database.MainOffer() != nullptr && database.MainOffer()->is_deprecated) {
		page.Say(" ").Leaf("span", {{"class", "badge"}}, "deprecated");
	}
	page.End();
	page.Leaf("td", {{"class", "number"}}, version != nullptr ? std::to_string(version->number) : "–");
	page.Begin("td");
	SayTime(version != nullptr ? version->published : std::nullopt, page);
	page.End();
	const auto size = [&](const std::optional<std::uint64_t> Version::*member) {
		page.Leaf("td", {{"class", "number"}}, version != nullptr ? ShownSize(version->*member) : "–");
	};
	size(&Version::full_size);
	size(&Version::diff_size);
	page.Leaf("td", {{"class", "number"}}, std::to_string(database.versions.size())).End().Line();
}

/** A release of a database, for lists over all databases. */
struct Release {
	const Database* database;
	const Version* version;
};

/** The releases that were published last, the newest first; those without a time are left out. */
std::vector<Release> NewestReleases(const Catalogue& catalogue, std::size_t most) {
	std::vector<Release> releases;
	for (const Database& database : catalogue.databases) {
		for (const Version& version : database.versions) {
			if (version.published) {
				releases.push_back({&database, &version});
			}
		}
	}
	const auto count = static_cast<std::ptrdiff_t>(std::min(most, releases.size()));
	const auto order = [](const Release& release) {
		return std::tuple(-*release.version->published, release.database->id, -release.version->number);
	};
	std::partial_sort(releases.begin(), releases.begin() + count, releases.end(),
	    [&](const Release& left, const Release& right) { return order(left) < order(right); });
	releases.resize(static_cast<std::size_t>(count));
	return releases;
}

void WriteNewest(const Catalogue& catalogue, Markup& page) {
	constexpr std::size_t kMost = 8;
	const std::vector<Release> releases = NewestReleases(catalogue, kMost);
	if (releases.empty()) {
		return;
	}
	page.Leaf("h2", "Newest releases").Begin("ul", {{"class", "releases"}}).Line();
	for (const Release& release : releases) {
		const std::string name = release.database->id + " " + std::to_string(release.version->number);
		page.Begin("li").Leaf("a", {{"href", DatabasePath(*release.database) + "index.html"}}, name).Say(" ");
		SayTime(release.version->published, page);
		if (release.version->is_withdrawn) {
			page.Say(" ").Leaf("span", {{"class", "badge bad"}}, "withdrawn");
		}
		if (!release.version->notes.empty()) {
			page.Say(" ").Leaf("span", {{"class", "notes"}}, release.version->notes);
		}
		page.End().Line();
	}
	page.End().Line();
}

/** The highest version that any channel offers. */
int NewestOffer(const Database& database) {
	int newest = 0;
	for (const Offer& offer : database.offers) {
		newest = std::max(newest, offer.entry.data_version);
	}
	return newest;
}

std::string StateOf(const Database& database, const Offer& offer) {
	const Version* version = database.Find(offer.entry.data_version);
	const int behind = NewestOffer(database) - offer.entry.data_version;
	std::string state =
	    behind == 0 ? "newest" : Counted(static_cast<std::uint64_t>(behind), "version") + " behind another channel";
	state += version != nullptr && version->is_withdrawn ? ", withdrawn" : "";
	return state + (offer.is_deprecated ? ", deprecated" : "");
}

void WriteOffer(const Database& database, const Offer& offer, Markup& page) {
	const auto oldest = offer.entry.data_version - static_cast<int>(offer.chain.size());
	page.Begin("tr").Begin("th", {{"scope", "row"}});
	page.Leaf("a", {{"href", DatabasePath(database) + "index.html"}}, database.id).End();
	page.Leaf("td", {{"class", "number"}}, std::to_string(offer.entry.data_version)).Begin("td");
	SayTime(offer.entry.last_fetch_time, page);
	page.End().Leaf("td", {{"class", "number"}}, offer.chain.empty() ? "–" : std::to_string(oldest));
	page.Leaf("td", {{"class", "state"}}, StateOf(database, offer)).End().Line();
}

void WriteChannel(const Catalogue& catalogue, const std::string& channel, Markup& page) {
	page.Leaf("h2", "Channel " + channel + (channel == "1" ? ", the default" : "")).Line();
	BeginTable(page, "What channel " + channel + " offers",
	    {{"Database"}, {"Version", "number"}, {"Published"}, {"Diffs from", "number"}, {"State"}});
	for (const Database& database : catalogue.databases) {
		for (const Offer& offer : database.offers) {
			if (offer.channel == channel) {
				WriteOffer(database, offer, page);
			}
		}
	}
	EndTable(page);
}

void WriteLines(const std::string& lines, Markup& page) {
	page.Begin("pre", {{"tabindex", "0"}}).Begin("code");
	std::istringstream text(lines);
	for (std::string line; std::getline(text, line);) {
		page.Say(line).Line();
	}
	page.End().End().Line();
}

void WriteKey(const Key& key, Markup& page) {
	page.Leaf("h2", key.name).Line();
	BeginFacts(page);
	page.Begin("div").Leaf("dt", "Fingerprint (SHA-256)").Begin("dd");
	page.Leaf("code", {{"class", "fingerprint"}}, key.fingerprint).End().End();
	page.Begin("div").Leaf("dt", "File").Begin("dd").Leaf("a", {{"href", KeyPath(key)}}, KeyPath(key));
	page.End().End().End().Line();
	WriteLines(WithoutEnd(key.pem, "\n"), page);
}

/**
 * What an administrator types to trust a key, whose file has a name of its own, so that no trusted key is replaced. The
 * key is in the lines, because the page may have come by a way that no other program knows.
 */
std::string TrustLines(const Key& key) {
	const std::string path = KeyPath(key);
	const std::string name = path.substr(path.find('/') + 1);
	return "cat > " + name + " <<'END'\n" + WithoutEnd(key.pem, "\n") + "\nEND\nopenssl pkey -pubin -in " + name +
	       " -outform DER | tail -c 32 | sha256sum\ninstall -D -m 644 " + name + " /usr/tarn/etc/codesign/6/" + name;
}

std::string Summary(const Version& version) {
	std::string text = version.notes.empty() ? "" : version.notes + " – ";
	text += "full package " + ShownSize(version.full_size) + ", diff package " + ShownSize(version.diff_size);
	if (version.restores) {
		text += "; it has the content of version " + std::to_string(*version.restores);
	}
	return text + (version.is_withdrawn ? "; it was withdrawn." : ".");
}

void WriteFeedEntry(const Catalogue& catalogue, const Release& release, Markup& feed) {
	const Version& version = *release.version;
	const std::string number = std::to_string(version.number);
	const std::string directory = catalogue.url + "/" + DatabasePath(*release.database);
	const bool is_compared = release.database->compared.count(version.number) > 0;
	feed.Begin("entry").Line();
	feed.Leaf("title", release.database->id + " " + number + (version.is_withdrawn ? " (withdrawn)" : "")).Line();
	feed.Leaf("id", directory + "#v" + number).Line();
	feed.Empty("link", {{"href", directory + (is_compared ? ChangesName(version.number) : "index.html#v" + number)}});
	feed.Leaf("updated", ExactTime(*version.published)).Leaf("summary", Summary(version)).End().Line();
}

} // namespace

std::string IndexPage(const Catalogue& catalogue) {
	Page page(catalogue, "", "");
	Markup& body = page.Body();
	WriteNewest(catalogue, body);
	body.Leaf("h2", "Databases").Line();
	if (catalogue.databases.empty()) {
		body.Leaf("p", "Nothing has been published yet.").Line();
		return page.Finish();
	}
	BeginTable(body, Counted(catalogue.databases.size(), "database"),
	    {{"Database"}, {"Version", "number"}, {"Published"}, {"Full package", "number"}, {"Diff package", "number"},
	        {"Versions", "number"}});
	for (const Database& database : catalogue.databases) {
		WriteDatabase(database, body);
	}
	EndTable(body);
	return page.Finish();
}

std::string ChannelsPage(const Catalogue& catalogue) {
	Page page(catalogue, "Channels", "");
	Markup& body = page.Body();
	body.Leaf("p", "A device follows the channel that its setting db_ver names.").Line();
	for (const auto& [name, sentence] : catalogue.damaged) {
		body.Leaf("p", {{"class", "warning"}}, "The document of channel " + name + " cannot be read.").Line();
	}
	for (const std::string& channel : catalogue.channels) {
		WriteChannel(catalogue, channel, body);
	}
	return page.Finish();
}

std::string TrustPage(const Catalogue& catalogue) {
	Page page(catalogue, "Trust", "");
	Markup& body = page.Body();
	body.Leaf("p", "A device installs a package only when a key that it trusts has signed every byte of the package.");
	if (catalogue.keys.empty()) {
		body.Leaf("p", "Ask the publisher for the public key and its fingerprint.").Line();
		return page.Finish();
	}
	for (const Key& key : catalogue.keys) {
		WriteKey(key, body);
	}
	body.Leaf("h2", "How to trust a key").Line();
	body.Leaf("p", "On the device, as root. Go on to the last line only if the digest that openssl prints is "
	               "the fingerprint, and compare it with what the publisher told you by another way than this page: "
	               "who can change this page can change the fingerprint as well.");
	for (const Key& key : catalogue.keys) {
		WriteLines(TrustLines(key), body);
	}
	return page.Finish();
}

std::string Feed(const Catalogue& catalogue) {
	constexpr std::size_t kMostEntries = 50;
	const std::vector<Release> releases = NewestReleases(catalogue, kMostEntries);
	Markup feed;
	feed.Paste("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n");
	feed.Begin("feed", {{"xmlns", "http://www.w3.org/2005/Atom"}}).Line();
	feed.Leaf("title", catalogue.title).Leaf("id", catalogue.url + "/feed.xml").Line();
	feed.Empty("link", {{"rel", "self"}, {"href", catalogue.url + "/feed.xml"}}).Line();
	feed.Empty("link", {{"href", catalogue.url + "/index.html"}}).Line();
	feed.Begin("author").Leaf("name", catalogue.title).End().Line();
	feed.Leaf("updated", ExactTime(releases.empty() ? 0 : *releases.front().version->published)).Line();
	for (const Release& release : releases) {
		WriteFeedEntry(catalogue, release, feed);
	}
	feed.End().Line();
	return feed.Text();
}

} // namespace tarn::publisher::site
