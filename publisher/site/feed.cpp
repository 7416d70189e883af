#include "publisher/site/page.h"
#include "publisher/site/pages.h"

namespace tarn::publisher::site {

namespace {

std::string Summary(const Version& version) {
	std::string text = version.notes.empty() ? "" : version.notes + " – ";
	text += "full package " + ShownSize(version.full_size) + ", diff package " + ShownSize(version.diff_size);
	if (version.restores) {
		text += "; it has the content of version " + std::to_string(*version.restores);
	}
	return text + (version.is_withdrawn ? "; it was withdrawn." : ".");
}

void WriteEntry(const Catalogue& catalogue, const Release& release, Markup& feed) {
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
		WriteEntry(catalogue, release, feed);
	}
	feed.End().Line();
	return feed.Text();
}

} // namespace tarn::publisher::site
