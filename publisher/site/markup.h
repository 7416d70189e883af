/** @file HTML, SVG and XML in which nothing that comes from data can be markup. */
#ifndef PUBLISHER_SITE_MARKUP_H
#define PUBLISHER_SITE_MARKUP_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn::publisher::site {

/**
 * Writes elements. Names of elements and attributes are the program's own; every text and every value of an attribute
 * is escaped, so that names and notes from a repository stay text whatever they hold. The result is well-formed XML,
 * and HTML where the elements are HTML's.
 */
class Markup {
public:
	using Attributes = std::vector<std::pair<const char*, std::string>>;

	Markup& Begin(const char* element, const Attributes& attributes = {});
	Markup& End();
	Markup& Say(std::string_view text);
	/** A whole element that holds a text. */
	Markup& Leaf(const char* element, const Attributes& attributes, std::string_view text);
	Markup& Leaf(const char* element, std::string_view text) { return Leaf(element, {}, text); }
	/** A whole element that holds nothing, such as "meta" or "path". */
	Markup& Empty(const char* element, const Attributes& attributes);
	/** A line break, for who reads the source. */
	Markup& Line();
	/** What another object has written, or the program itself; never data. */
	Markup& Paste(std::string_view markup);

	const std::string& Text() const { return text_; }

private:
	void Open(const char* element, const Attributes& attributes);

	std::string text_;
	std::vector<const char*> open_;
};

/** A text that is neither markup nor the end of an attribute's value; control characters and the like become \xNN. */
std::string Escaped(std::string_view text);

/** A part of a path, and of a URL, that stands for any name: one name for each, without "/", never beginning with a
 * dot. */
std::string PathName(std::string_view name);

/** A link from data if it leads to the web; empty for anything else, such as a script. */
std::string WebLink(const std::string& link);

} // namespace tarn::publisher::site

#endif
