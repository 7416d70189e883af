// Hostile patches: the decoder ends with a result or an error of its own, the same whatever its buffers' sizes. The
// input is two bytes that say (little endian) how many of the bytes after them are the source, the source, and the
// patch.
#include "decoder/decode.h"
#include "entry.h"
#include "promise.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

using tarn::decoder::BufferSizes;
using tarn::decoder::Byte;
using tarn::decoder::DecodeError;
using tarn::decoder::DecodePatch;
using tarn::decoder::MemoryBytes;
using tarn::test::Require;

constexpr std::uint64_t kMaxOutput = 1U << 16U;
// Everything in one buffer, and buffers so small that hardly anything is.
constexpr BufferSizes kLarge = {1U << 16U, 1U << 16U, 1U << 17U};
constexpr BufferSizes kSmall = {3, 5, 7};

struct Outcome {
	std::string error;
	std::vector<Byte> output;
};

Outcome Decode(const MemoryBytes& source, const MemoryBytes& patch, const BufferSizes& buffers) {
	MemoryBytes target("output");
	try {
		DecodePatch(source, target, patch, {kMaxOutput, buffers});
		return {"", target.Content()};
	} catch (const DecodeError& error) {
		return {error.what(), {}};
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	constexpr std::size_t kLengthBytes = 2;
	constexpr unsigned kByteBits = 8;
	if (size < kLengthBytes) {
		return 0;
	}
	const std::size_t wanted = data[0] | static_cast<std::size_t>(data[1]) << kByteBits;
	const Byte* const begin = data + kLengthBytes;
	const Byte* const end = data + size;
	const Byte* const middle = begin + std::min(wanted, size - kLengthBytes);
	const MemoryBytes source("source", {begin, middle});
	const MemoryBytes patch("patch", {middle, end});

	const Outcome outcome = Decode(source, patch, kLarge);
	const Outcome again = Decode(source, patch, kSmall);
	Require(outcome.output.size() <= kMaxOutput, "the limit of the output");
	Require(outcome.error == again.error,
	    "\"" + outcome.error + "\" with large buffers, \"" + again.error + "\" with small");
	Require(outcome.output == again.output, "another output with smaller buffers");
	return 0;
}
