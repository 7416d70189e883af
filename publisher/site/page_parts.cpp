#include "publisher/site/page_parts.h"

#include "base/text.h"
#include "publisher/changes/changes.h"

namespace tarn::publisher::site {

std::string DatabasePath(const Database& database) {
	return "databases/" + PathName(database.id) + "/";
}

std::string ChangesName(int version) {
	return "changes-" + std::to_string(version) + ".html";
}

std::string KeyPath(const Key& key) {
	constexpr std::size_t kDigits = 16;
	return "keys/" + key.fingerprint.substr(0, kDigits) + ".pub";
}

std::string ExactTime(int seconds) {
	return TimeText(seconds, "%Y-%m-%dT%H:%M:%SZ");
}

std::string ShownSize(const std::optional<std::uint64_t>& bytes) {
	return bytes ? HumanSize(*bytes) : "–";
}

void SayTime(const std::optional<int>& seconds, Markup& page) {
	if (seconds) {
		page.Leaf("time", {{"datetime", ExactTime(*seconds)}}, TimeText(*seconds, "%Y-%m-%d %H:%M UTC"));
	} else {
		page.Say("unknown");
	}
}

void BeginTable(Markup& page, const std::string& caption, std::initializer_list<Column> columns) {
	page.Begin("div", {{"class", "scroll"}, {"role", "region"}, {"aria-label", caption}, {"tabindex", "0"}});
	page.Begin("table").Leaf("caption", caption).Begin("thead").Begin("tr");
	for (const Column& column : columns) {
		Markup::Attributes attributes = {{"scope", "col"}};
		if (*column.style != '\0') {
			attributes.emplace_back("class", column.style);
		}
		page.Leaf("th", attributes, column.name);
	}
	page.End().End().Begin("tbody").Line();
}

void EndTable(Markup& page) {
	page.End().End().End().Line();
}

void BeginFacts(Markup& page) {
	page.Begin("dl", {{"class", "facts"}}).Line();
}

void AddFact(Markup& page, const char* name, const std::string& text) {
	page.Begin("div").Leaf("dt", name).Leaf("dd", text).End().Line();
}

Page::Page(const Catalogue& catalogue, const std::string& title, const std::string& root) : root_(root) {
	markup_.Paste("<!DOCTYPE html>\n").Begin("html", {{"lang", "en"}}).Line();
	WriteHead(catalogue, title);
	markup_.Begin("body").Line();
	markup_.Leaf("a", {{"class", "skip"}, {"href", "#content"}}, "Skip to the content").Line();
	WriteNavigation(catalogue);
	markup_.Begin("main", {{"id", "content"}}).Line();
	markup_.Leaf("h1", title.empty() ? catalogue.title : title).Line();
}

void Page::WriteHead(const Catalogue& catalogue, const std::string& title) {
	// Nothing is loaded from elsewhere and nothing runs, whatever a mistake might let into a page.
	constexpr const char* kPolicy = "default-src 'none'; style-src 'self'; base-uri 'none'; form-action 'none'";
	markup_.Begin("head").Line().Empty("meta", {{"charset", "utf-8"}}).Line();
	markup_.Empty("meta", {{"http-equiv", "Content-Security-Policy"}, {"content", kPolicy}}).Line();
	markup_.Empty("meta", {{"name", "viewport"}, {"content", "width=device-width, initial-scale=1"}}).Line();
	markup_.Empty("meta", {{"name", "color-scheme"}, {"content", "light dark"}}).Line();
	markup_.Leaf("title", title.empty() ? catalogue.title : title + " – " + catalogue.title).Line();
	markup_.Empty("link", {{"rel", "stylesheet"}, {"href", root_ + "style.css"}}).Line();
	if (!catalogue.url.empty()) {
		markup_
		    .Empty("link", {{"rel", "alternate"}, {"type", "application/atom+xml"}, {"title", catalogue.title},
		                       {"href", root_ + "feed.xml"}})
		    .Line();
	}
	markup_.End().Line();
}

void Page::WriteNavigation(const Catalogue& catalogue) {
	markup_.Begin("header").Begin("nav", {{"aria-label", "Site"}});
	const auto link = [this](const char* file, const char* name) {
		markup_.Leaf("a", {{"href", root_ + file}}, name).Line();
	};
	link("index.html", "Databases");
	link("channels.html", "Channels");
	link("trust.html", "Trust");
	if (!catalogue.url.empty()) {
		link("feed.xml", "Feed");
	}
	markup_.End().End().Line();
}

std::string Page::Finish() {
	markup_.End().End().End().Line();
	return markup_.Text();
}

} // namespace tarn::publisher::site
