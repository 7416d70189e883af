#include "publisher/site/markup.h"

#include "base/sha2.h"
#include "base/text.h"
#include "publisher/sqlite/shown_value.h"

#include <boost/algorithm/string/replace.hpp>

namespace tarn::publisher::site {

namespace {

bool IsPlainInPath(char character) {
	constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
	return kPlain.find(character) != std::string_view::npos;
}

} // namespace

std::string Escaped(std::string_view text) {
	std::string escaped = ShownText(text);
	for (const char* bad : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) { // U+FFFE and U+FFFF, which XML does not have
		boost::algorithm::replace_all(escaped, bad, "?");
	}
	for (const auto& [character, entity] : {std::pair("&", "&amp;"), // first, because the entities hold it
	         {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}, {"'", "&#39;"}}) {
		boost::algorithm::replace_all(escaped, character, entity);
	}
	return escaped;
}

std::string PathName(std::string_view name) {
	constexpr std::size_t kLongest = 150;
	std::string path;
	for (const char character : name) {
		const auto byte = static_cast<unsigned char>(character);
		const bool is_plain = IsPlainInPath(character) && !(path.empty() && character == '.');
		path += is_plain ? std::string(1, character) : "~" + Hex(&byte, 1);
	}
	if (path.empty() || path.size() > kLongest) {
		const Sha256::Digest digest = Sha256::Of(name);
		path = path.substr(0, kLongest / 2) + "~~" + Hex(digest.data(), digest.size());
	}
	return path;
}

std::string WebLink(const std::string& link) {
	return StartsWith(link, "https://") || StartsWith(link, "http://") ? link : std::string();
}

void Markup::Open(const char* element, const Attributes& attributes) {
	text_ += '<';
	text_ += element;
	for (const auto& [name, value] : attributes) {
		text_ += ' ';
		text_ += name;
		text_ += "=\"" + Escaped(value) + '"';
	}
}

Markup& Markup::Begin(const char* element, const Attributes& attributes) {
	Open(element, attributes);
	text_ += '>';
	open_.push_back(element);
	return *this;
}

Markup& Markup::End() {
	text_ += std::string("</") + open_.back() + '>';
	open_.pop_back();
	return *this;
}

Markup& Markup::Say(std::string_view text) {
	text_ += Escaped(text);
	return *this;
}

Markup& Markup::Leaf(const char* element, const Attributes& attributes, std::string_view text) {
	return Begin(element, attributes).Say(text).End();
}

Markup& Markup::Empty(const char* element, const Attributes& attributes) {
	Open(element, attributes);
	text_ += " />";
	return *this;
}

Markup& Markup::Line() {
	text_ += '\n';
	return *this;
}

Markup& Markup::Paste(std::string_view markup) {
	text_ += markup;
	return *this;
}

} // namespace tarn::publisher::site
