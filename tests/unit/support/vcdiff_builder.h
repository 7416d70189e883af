/** @file Assembles VCDIFF patches byte by byte, right ones and wrong ones. */
#ifndef TESTS_UNIT_SUPPORT_VCDIFF_BUILDER_H
#define TESTS_UNIT_SUPPORT_VCDIFF_BUILDER_H

#include "decoder/code_table.h"
#include "decoder/decode.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

namespace tarn::decoder::test {

/** Codes of the default table whose instruction's size follows. */
constexpr int kRunCode = 0;
constexpr int kAddCode = 1;
constexpr int kCopyCode = 19;
constexpr int kCopyCodesPerMode = 16;

constexpr int kSourceWindow = 1;
constexpr int kTargetWindow = 2;

std::string Integer(std::uint64_t value);
std::string Raw(std::initializer_list<int> bytes);

/** One window: instructions are appended one after the other, lengths are computed unless they are set. */
class WindowBuilder {
public:
	WindowBuilder& Segment(int indicator, std::uint64_t size, std::uint64_t position);
	WindowBuilder& Add(const std::string& bytes);
	WindowBuilder& Run(std::uint64_t size, char byte);
	/** Mode and address as they are written, the address in the form that the mode wants. */
	WindowBuilder& Copy(std::uint64_t size, int mode, const std::string& address);
	WindowBuilder& Code(std::initializer_list<int> codes, const std::string& data, const std::string& addresses);
	WindowBuilder& Checksum(std::uint32_t checksum);

	/** The window for a target of a size. */
	std::string Build(std::uint64_t target_size) const;

	int extra_indicator = 0;
	int delta_indicator = 0;
	std::optional<std::uint64_t> window_length;
	std::optional<std::uint64_t> data_length;
	std::optional<std::uint64_t> instruction_length;
	std::optional<std::uint64_t> address_length;

private:
	int indicator_ = 0;
	std::string segment_;
	std::string data_;
	std::string instructions_;
	std::string addresses_;
	std::optional<std::uint32_t> checksum_;
};

/** Magic, version, and the header's indicator. */
std::string Magic(int indicator = 0);
/** A whole patch of windows without anything else. */
std::string Patch(const std::string& windows);
std::string PatchWithApplicationHeader(const std::string& header, const std::string& windows);
/** With a code table of its own, that table's patch being given. */
std::string PatchWithTable(CacheSizes caches, const std::string& table_patch, const std::string& windows);
/** The patch of a code table, which says the whole table in one ADD. */
std::string TablePatch(const CodeTable& table);

/** What decoding in memory gives; throws DecodeError. */
std::string Decoded(const std::string& source, const std::string& patch, const DecodeLimits& limits = {});
/** The error's text, or "no error". */
std::string ErrorOf(const std::string& source, const std::string& patch, const DecodeLimits& limits = {});
/** Our application header for a pair of contents. */
std::string PromiseOf(const std::string& source, const std::string& target);

} // namespace tarn::decoder::test

#endif
