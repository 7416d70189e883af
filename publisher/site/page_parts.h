/** @file What all pages have, and the parts that several pages are made of. */
#ifndef PUBLISHER_SITE_PAGE_PARTS_H
#define PUBLISHER_SITE_PAGE_PARTS_H

#include "publisher/site/catalogue.h"
#include "publisher/site/markup.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

namespace tarn::publisher::site {

/** Whose pages are two directories below the site's own: the path of a database's directory, "/" included. */
std::string DatabasePath(const Database& database);
/** The name of the page that tells what a version changes, beside the database's page. */
std::string ChangesName(int version);
std::string KeyPath(const Key& key);

/** "2026-11-20T09:00:00Z", as feeds and attributes have it. */
std::string ExactTime(int seconds);
/** A size for people, or a dash. */
std::string ShownSize(const std::optional<std::uint64_t>& bytes);

/** "2026-11-20 09:00 UTC"; "unknown" without a time. */
void SayTime(const std::optional<int>& seconds, Markup& page);
struct Column {
	const char* name;
	const char* style = ""; // the class that its cells have
};
/** Begins a table that is scrolled by itself where it is wider than the page; its rows follow. */
void BeginTable(Markup& page, const std::string& caption, std::initializer_list<Column> columns);
void EndTable(Markup& page);
/** A list of short facts that begins a page. */
void BeginFacts(Markup& page);
void AddFact(Markup& page, const char* name, const std::string& text);

/** One page: what all have in common, around what is written to Body(). */
class Page {
public:
	/**
	 * @param title  of the page; empty for the first page
	 * @param root   leads from the page to the site's directory: "" or "../../"
	 */
	Page(const Catalogue& catalogue, const std::string& title, const std::string& root);

	Markup& Body() { return markup_; }
	/** The whole text, when nothing more is written. */
	[[nodiscard]] std::string Finish();

private:
	void WriteHead(const Catalogue& catalogue, const std::string& title);
	void WriteNavigation(const Catalogue& catalogue);

	std::string root_;
	Markup markup_;
};

} // namespace tarn::publisher::site

#endif
