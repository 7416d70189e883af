/** @file Texts in UTF-8, character by character. */
#ifndef PUBLISHER_COMMON_UTF8_H
#define PUBLISHER_COMMON_UTF8_H

#include <boost/locale/utf.hpp>

#include <cstddef>
#include <optional>
#include <string_view>

namespace tarn::publisher {

/** Takes the first character off a text that is not empty. No value, and the text as it was, for invalid bytes. */
inline std::optional<char32_t> TakeCharacter(std::string_view& text) {
	const auto* at = text.begin();
	const auto point = boost::locale::utf::utf_traits<char>::decode(at, text.end());
	if (point == boost::locale::utf::illegal || point == boost::locale::utf::incomplete) {
		return std::nullopt;
	}
	text.remove_prefix(static_cast<std::size_t>(at - text.begin()));
	return point;
}

/** Whether a character is one of C0 or C1, DEL, a separator of lines or a mark that turns the direction of a text. */
inline bool IsControl(char32_t character) {
	return character < U' ' || (character >= 0x7F && character < 0xA0) ||
	       (character >= 0x2028 && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
}

/** Whether a byte is not the first of its character. */
inline bool IsContinuation(char byte) {
	return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

} // namespace tarn::publisher

#endif
