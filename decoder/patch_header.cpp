#include "decoder/patch_header.h"

#include "base/text.h"
#include "decoder/bytes.h"
#include "decoder/files.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <vector>

namespace tarn::decoder {

namespace {

/** Well above the length of the longest one that is ours. */
constexpr std::size_t kLongestApplicationHeader = 128;
constexpr std::string_view kPromiseMagic = "TARNVCD1";
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
	return word.size() == kHashDigits && word.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

constexpr Byte kSecondaryCompression = 0x01;
constexpr Byte kCodeTable = 0x02;
constexpr Byte kApplicationHeader = 0x04;

void ReadMagic(SectionReader& reader) {
	constexpr std::array<Byte, 3> kMagic = {0xd6, 0xc3, 0xc4};
	constexpr Byte kVersion = 0;
	for (const Byte expected : kMagic) {
		if (reader.ReadByte() != expected) {
			reader.Fail("this is not a VCDIFF patch");
		}
	}
	const Byte version = reader.ReadByte();
	if (version != kVersion) {
		reader.Fail("version " + std::to_string(version) + " of the VCDIFF format is not known");
	}
}

[[noreturn]] void RefuseSecondaryCompression(SectionReader& reader) {
	constexpr Byte kDjw = 1;
	constexpr Byte kLzma = 2;
	constexpr Byte kFgk = 16;
	const Byte id = reader.ReadByte();
	const std::string name = id == kDjw    ? "DJW"
	                         : id == kLzma ? "LZMA"
	                         : id == kFgk  ? "FGK"
	                                       : "number " + std::to_string(id);
	reader.Fail("secondary compression (" + name + ") is not supported");
}

PatchHeader::CustomTable ReadCustomTable(SectionReader& reader, std::uint64_t patch_end) {
	PatchHeader::CustomTable table;
	table.end = reader.ReadPartEnd("a code table of");
	reader.Open("code table", reader.Position(), table.end);
	table.caches.near = reader.ReadByte();
	table.caches.same = reader.ReadByte();
	if (table.caches.Modes() > CodeTable::kEntries) {
		reader.Fail("caches of sizes " + std::to_string(table.caches.near) + " and " +
		            std::to_string(table.caches.same) + " make more than 256 address modes");
	}
	table.begin = reader.Position();
	reader.Open("patch", table.end, patch_end);
	return table;
}

std::optional<Promise> ReadApplicationHeader(SectionReader& reader, std::uint64_t patch_end) {
	const std::uint64_t end = reader.ReadPartEnd("an application header of");
	const std::uint64_t length = end - reader.Position();
	// Nothing longer is ever held: what is cut is too long to be one of ours, and of others nobody reads anything.
	std::string text(static_cast<std::size_t>(std::min<std::uint64_t>(length, kLongestApplicationHeader)), '\0');
	for (char& character : text) {
		character = static_cast<char>(reader.ReadByte());
	}
	std::optional<Promise> promise;
	if (StartsWith(text, kPromiseMagic)) { // It is meant to be ours, well formed or not.
		promise = ParseApplicationHeader(text);
		if (!promise) {
			reader.Fail("the application header is malformed");
		}
	}
	reader.Open("patch", end, patch_end);
	return promise;
}

} // namespace

std::string FormatApplicationHeader(const Promise& promise) {
	return std::string(kPromiseMagic) + " " + std::to_string(promise.source_size) + " " +
	       std::to_string(promise.target_size) + " " + promise.target_hash;
}

std::optional<Promise> ParseApplicationHeader(const std::string& text) {
	std::string_view rest = text;
	Promise promise;
	if (TakeWord(rest) != kPromiseMagic || !ParseSize(TakeWord(rest), promise.source_size) ||
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

PatchHeader ReadPatchHeader(SectionReader& reader) {
	const std::uint64_t end = reader.Position() + reader.Remaining();
	ReadMagic(reader);
	const Byte indicator = reader.ReadByte();
	if ((indicator & ~(kSecondaryCompression | kCodeTable | kApplicationHeader)) != 0) {
		reader.Fail("the header has unknown bits (" + std::to_string(indicator) + ")");
	}
	if ((indicator & kSecondaryCompression) != 0) {
		RefuseSecondaryCompression(reader);
	}
	PatchHeader header;
	if ((indicator & kCodeTable) != 0) {
		header.custom_table = ReadCustomTable(reader, end);
	}
	if ((indicator & kApplicationHeader) != 0) {
		header.promise = ReadApplicationHeader(reader, end);
	}
	return header;
}

} // namespace tarn::decoder
