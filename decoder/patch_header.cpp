#include "decoder/patch_header.h"

#include <array>

namespace tarn::decoder {

namespace {

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

/** The end of a part whose length comes next; it lies within the patch. */
std::uint64_t ReadPartEnd(SectionReader& reader, const std::string& what) {
	const std::uint64_t length = reader.ReadInteger();
	if (length > reader.Remaining()) {
		reader.Fail(what + " of " + std::to_string(length) + " bytes goes beyond the patch's end");
	}
	return reader.Position() + length;
}

PatchHeader::CustomTable ReadCustomTable(SectionReader& reader, std::uint64_t patch_end) {
	PatchHeader::CustomTable table;
	table.end = ReadPartEnd(reader, "a code table");
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
	const std::uint64_t end = ReadPartEnd(reader, "an application header");
	const std::uint64_t length = end - reader.Position();
	// Nothing longer is ever held: what is cut is too long to be one of ours, and of others nobody reads anything.
	std::string text(static_cast<std::size_t>(std::min<std::uint64_t>(length, kLongestApplicationHeader)), '\0');
	for (char& character : text) {
		character = static_cast<char>(reader.ReadByte());
	}
	std::optional<Promise> promise;
	if (IsOurApplicationHeader(text)) {
		promise = ParseApplicationHeader(text);
		if (!promise) {
			reader.Fail("the application header is malformed");
		}
	}
	reader.Open("patch", end, patch_end);
	return promise;
}

} // namespace

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
