#include "decoder/application_header.h"

#include "base/text.h"
#include "decoder/content_hash.h"
#include "decoder/input_file.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <vector>

namespace tarn::decoder {

namespace {

constexpr std::string_view kMagic = "TARNVCD1";
constexpr std::size_t kHashDigits = 32;

/** The text up to the next blank, which is taken away with it; all of it when there is none. */
std::string_view TakeWord(std::string_view& text) {
	const std::size_t blank = text.find(' ');
	const std::string_view word = text.substr(0, blank);
	text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
	return word;
}

bool ParseSize(std::string_view word, std::uint64_t& size) {
	if (word.empty() || (word.size() > 1 && word.front() == '0')) {
		return false;
	}
	const char* const end = word.data() + word.size();
	const auto [rest, error] = std::from_chars(word.data(), end, size);
	return error == std::errc() && rest == end;
}

bool IsHash(std::string_view word) {
	return word.size() == kHashDigits && std::all_of(word.begin(), word.end(), [](char digit) {
		return (digit >= '0' && digit <= '9') || (digit >= 'a' && digit <= 'f');
	});
}

} // namespace

std::string FormatApplicationHeader(const Promise& promise) {
	return std::string(kMagic) + " " + std::to_string(promise.source_size) + " " + std::to_string(promise.target_size) +
	       " " + promise.target_hash;
}

bool IsOurApplicationHeader(const std::string& text) {
	return StartsWith(text, kMagic);
}

std::optional<Promise> ParseApplicationHeader(const std::string& text) {
	std::string_view rest = text;
	Promise promise;
	if (TakeWord(rest) != kMagic || !ParseSize(TakeWord(rest), promise.source_size) ||
	    !ParseSize(TakeWord(rest), promise.target_size) || !IsHash(rest)) {
		return std::nullopt;
	}
	promise.target_hash = rest;
	return promise;
}

std::string MakeApplicationHeader(const std::string& source, const std::string& target) {
	constexpr std::size_t kBlock = 1U << 18U;
	const InputFile file(target);
	ContentHash hash;
	std::vector<Byte> block(kBlock);
	for (std::uint64_t offset = 0; offset < file.Size();) {
		const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, file.Size() - offset));
		file.ReadAt(offset, block.data(), part);
		hash.Update(block.data(), part);
		offset += part;
	}
	return FormatApplicationHeader({InputFile(source).Size(), file.Size(), hash.Hex()});
}

} // namespace tarn::decoder
