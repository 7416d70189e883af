#include "base/error.h"

#include <cerrno>
#include <system_error>

namespace tarn {

std::string ErrnoText(const std::string& attempt, int error) {
	return attempt + ": " + std::generic_category().message(error);
}

void ThrowErrno(const std::string& attempt) {
	throw Error(ErrnoText(attempt, errno));
}

std::string Printable(std::string_view name) {
	constexpr std::string_view kDigits = "0123456789abcdef";
	constexpr unsigned char kDelete = 0x7f;
	std::string text;
	for (const char c : name) {
		const auto byte = static_cast<unsigned char>(c);
		if (byte < ' ' || byte == kDelete) {
			text += "\\x";
			text += kDigits[byte >> 4U];
			text += kDigits[byte & 0xfU];
		} else {
			text += c;
		}
	}
	return text;
}

} // namespace tarn
