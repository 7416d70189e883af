#include "vcdiff_builder.h"

#include "decoder/bytes.h"
#include "decoder/patch_header.h"

namespace tarn::decoder::test {

namespace {

std::vector<Byte> ToBytes(const std::string& text) {
	return {text.begin(), text.end()};
}

void AppendByte(std::string& text, int byte) {
	text += static_cast<char>(byte);
}

} // namespace

std::string Integer(std::uint64_t value) {
	constexpr unsigned kDigitBits = 7;
	constexpr std::uint64_t kMask = 0x7f;
	std::string text(1, static_cast<char>(value & kMask));
	for (value >>= kDigitBits; value != 0; value >>= kDigitBits) {
		text.insert(text.begin(), static_cast<char>((value & kMask) | (kMask + 1)));
	}
	return text;
}

std::string Raw(std::initializer_list<int> bytes) {
	std::string text;
	for (const int byte : bytes) {
		AppendByte(text, byte);
	}
	return text;
}

WindowBuilder& WindowBuilder::Segment(int indicator, std::uint64_t size, std::uint64_t position) {
	indicator_ |= indicator;
	segment_ = Integer(size) + Integer(position);
	return *this;
}

WindowBuilder& WindowBuilder::Add(const std::string& bytes) {
	AppendByte(instructions_, kAddCode);
	instructions_ += Integer(bytes.size());
	data_ += bytes;
	return *this;
}

WindowBuilder& WindowBuilder::Run(std::uint64_t size, char byte) {
	AppendByte(instructions_, kRunCode);
	instructions_ += Integer(size);
	data_ += byte;
	return *this;
}

WindowBuilder& WindowBuilder::Copy(std::uint64_t size, int mode, const std::string& address) {
	AppendByte(instructions_, kCopyCode + kCopyCodesPerMode * mode);
	instructions_ += Integer(size);
	addresses_ += address;
	return *this;
}

WindowBuilder& WindowBuilder::Code(
    std::initializer_list<int> codes, const std::string& data, const std::string& addresses) {
	instructions_ += Raw(codes);
	data_ += data;
	addresses_ += addresses;
	return *this;
}

WindowBuilder& WindowBuilder::Checksum(std::uint32_t checksum) {
	constexpr int kIndicator = 4;
	indicator_ |= kIndicator;
	checksum_ = checksum;
	return *this;
}

std::string WindowBuilder::Build(std::uint64_t target_size) const {
	std::string body = Integer(target_size);
	AppendByte(body, delta_indicator);
	body += Integer(data_length.value_or(data_.size())) + Integer(instruction_length.value_or(instructions_.size())) +
	        Integer(address_length.value_or(addresses_.size()));
	if (checksum_) {
		constexpr unsigned kTop = 24;
		constexpr unsigned kByteBits = 8;
		for (unsigned shift = 0; shift <= kTop; shift += kByteBits) {
			AppendByte(body, static_cast<int>(*checksum_ << shift >> kTop));
		}
	}
	body += data_ + instructions_ + addresses_;
	std::string window;
	AppendByte(window, indicator_ | extra_indicator);
	return window + segment_ + Integer(window_length.value_or(body.size())) + body;
}

std::string Magic(int indicator) {
	return Raw({0xd6, 0xc3, 0xc4, 0, indicator});
}

std::string Patch(const std::string& windows) {
	return Magic() + windows;
}

std::string PatchWithApplicationHeader(const std::string& header, const std::string& windows) {
	constexpr int kIndicator = 4;
	return Magic(kIndicator) + Integer(header.size()) + header + windows;
}

std::string PatchWithTable(CacheSizes caches, const std::string& table_patch, const std::string& windows) {
	constexpr int kIndicator = 2;
	const std::string table = Raw({static_cast<int>(caches.near), static_cast<int>(caches.same)}) + table_patch;
	return Magic(kIndicator) + Integer(table.size()) + table + windows;
}

std::string TablePatch(const CodeTable& table) {
	const std::vector<Byte> string = CodeTableString(table);
	return Patch(WindowBuilder().Add({string.begin(), string.end()}).Build(string.size()));
}

std::string Decoded(const std::string& source, const std::string& patch, const DecodeLimits& limits) {
	MemoryBytes target("output");
	DecodePatch(MemoryBytes("source", ToBytes(source)), target, MemoryBytes("patch", ToBytes(patch)), limits);
	return {target.Content().begin(), target.Content().end()};
}

std::string ErrorOf(const std::string& source, const std::string& patch, const DecodeLimits& limits) {
	try {
		Decoded(source, patch, limits);
		return "no error";
	} catch (const DecodeError& error) {
		return error.what();
	}
}

std::string PromiseOf(const std::string& source, const std::string& target) {
	ContentHash hash;
	const std::vector<Byte> bytes = ToBytes(target);
	hash.Update(bytes.data(), bytes.size());
	return FormatApplicationHeader({source.size(), target.size(), hash.Hex()});
}

} // namespace tarn::decoder::test
