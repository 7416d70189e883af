#include "decoder/decode.h"

#include "decoder/files.h"
#include "decoder/patch_header.h"

#include <algorithm>

namespace tarn::decoder {

namespace {

/** A part of other bytes, as if it were alone. */
class BytesPart : public ReadableBytes {
public:
	BytesPart(const ReadableBytes& whole, std::uint64_t begin, std::uint64_t end)
	    : whole_(whole),
	      name_(whole.Name() + ", code table at " + std::to_string(begin)),
	      begin_(begin),
	      size_(end - begin) {}

	const std::string& Name() const override { return name_; }
	std::uint64_t Size() const override { return size_; }
	void ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const override {
		whole_.ReadAt(begin_ + offset, to, length);
	}

private:
	const ReadableBytes& whole_;
	std::string name_;
	std::uint64_t begin_;
	std::uint64_t size_;
};

std::uint64_t OutputLimit(const DecodeLimits& limits, std::uint64_t source_size, std::uint64_t patch_size) {
	if (limits.max_output) {
		return *limits.max_output;
	}
	const std::uint64_t given =
	    std::min(source_size, DecodeLimits::kNeverAllowed) + std::min(patch_size, DecodeLimits::kNeverAllowed);
	return std::clamp(given * DecodeLimits::kGrowth, DecodeLimits::kAlwaysAllowed, DecodeLimits::kNeverAllowed);
}

void CheckPromise(
    const Promise& promise, const ReadableBytes& source, const ReadableBytes& patch, std::uint64_t limit) {
	if (promise.source_size != source.Size()) {
		throw DecodeError(source.Name() + " has " + std::to_string(source.Size()) + " bytes, but " + patch.Name() +
		                  " was made for a source of " + std::to_string(promise.source_size) + ".");
	}
	if (promise.target_size > limit) {
		throw DecodeError(patch.Name() + " makes an output of " + std::to_string(promise.target_size) +
		                  " bytes; the limit is " + std::to_string(limit) + ".");
	}
}

class PatchDecoder {
public:
	PatchDecoder(
	    const ReadableBytes& source, GrowingBytes& target, const ReadableBytes& patch, const DecodeLimits& limits)
	    : source_(source),
	      patch_(patch),
	      buffers_(limits.buffers),
	      reader_(patch, limits.buffers.section),
	      output_(target, limits.buffers.block, limits.buffers.read_ahead) {
		window_limits_.source_size = source.Size();
		window_limits_.output_limit = OutputLimit(limits, source.Size(), patch.Size());
		reader_.Open("patch", 0, patch.Size());
	}

	void Decode() {
		const PatchHeader header = ReadPatchHeader(reader_);
		if (header.promise) {
			CheckPromise(*header.promise, source_, patch_, window_limits_.output_limit);
			window_limits_.output_limit = header.promise->target_size;
			window_limits_.promised = true;
			output_.StartHash();
		}
		DecodeWindows(header.custom_table ? ReadCustomTable(*header.custom_table) : DefaultCodeTable());
		output_.Flush();
		if (header.promise) {
			CheckResult(*header.promise);
		}
	}

	/** Decodes a table's own patch, which must not bring another table. */
	std::vector<Byte> static DecodeTable(const ReadableBytes& patch) {
		const MemoryBytes standard("the default code table", CodeTableString(DefaultCodeTable()));
		MemoryBytes target("the code table");
		constexpr std::size_t kBuffer = 2048;
		PatchDecoder decoder(standard, target, patch, {CodeTable::kStringSize, {kBuffer, kBuffer, kBuffer}});
		if (ReadPatchHeader(decoder.reader_).custom_table) {
			throw DecodeError(patch.Name() + ": a code table must not have a code table of its own.");
		}
		decoder.DecodeWindows(DefaultCodeTable());
		decoder.output_.Flush();
		return target.Content();
	}

private:
	CodeTable ReadCustomTable(const PatchHeader::CustomTable& custom) const {
		const BytesPart table_patch(patch_, custom.begin, custom.end);
		return CodeTableFromString(DecodeTable(table_patch), custom.caches, patch_.Name());
	}

	void DecodeWindows(const CodeTable& table) {
		WindowDecoder decoder(table, patch_, source_, output_, buffers_);
		while (!reader_.AtEnd()) {
			window_limits_.output_size = output_.Position();
			const WindowHeader window = ReadWindowHeader(reader_, window_limits_);
			// The whole output's hash says more than the windows' checksums.
			const bool checks = window.checksum && !window_limits_.promised;
			if (checks) {
				output_.StartChecksum();
			}
			decoder.Decode(window);
			if (checks) {
				CheckWindow(window);
			}
		}
	}

	void CheckWindow(const WindowHeader& window) {
		if (output_.EndChecksum() != *window.checksum) {
			throw DecodeError(patch_.Name() + ", window at byte " + std::to_string(window.begin) +
			                  ": the checksum of the result is wrong; is " + source_.Name() + " the right source?");
		}
	}

	void CheckResult(const Promise& promise) const {
		if (output_.Position() != promise.target_size) {
			throw DecodeError(patch_.Name() + " makes " + std::to_string(output_.Position()) +
			                  " bytes, but its application header promises " + std::to_string(promise.target_size) +
			                  ".");
		}
		if (output_.Hash() != promise.target_hash) {
			throw DecodeError(patch_.Name() + ": the result has another hash than promised; is " + source_.Name() +
			                  " the right source?");
		}
	}

	const ReadableBytes& source_;
	const ReadableBytes& patch_;
	const BufferSizes buffers_;
	WindowLimits window_limits_;
	SectionReader reader_;
	OutputBuffer output_;
};

void RefuseOutput(const InputFile& input, const char* what, const std::string& output) {
	if (input.IsAt(output)) {
		throw DecodeError(output + " is the " + what + " itself and would be overwritten.");
	}
}

} // namespace

void DecodePatch(
    const ReadableBytes& source, GrowingBytes& target, const ReadableBytes& patch, const DecodeLimits& limits) {
	PatchDecoder(source, target, patch, limits).Decode();
}

void DecodeFile(
    const std::string& source, const std::string& output, const std::string& patch, const DecodeLimits& limits) {
	const InputFile source_file(source);
	const InputFile patch_file(patch);
	RefuseOutput(source_file, "source", output);
	RefuseOutput(patch_file, "patch", output);
	OutputFile output_file(output);
	DecodePatch(source_file, output_file, patch_file, limits);
	output_file.Commit();
}

} // namespace tarn::decoder
