// Hostile frames of a payload: the decompressor fills exactly the frame or ends with an error of its own, and does the
// same each time. The input is three bytes with the unpacked size (little endian), a byte whose remainder is the
// codec's number, and the packed bytes.
#include "archive/codec.h"
#include "base/error.h"
#include "entry.h"
#include "promise.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace {

using tarn::archive::Codec;
using tarn::test::Require;

constexpr std::size_t kMargin = 64;
constexpr std::size_t kMaxOutput = 1U << 17U; // so that tries are quick

struct Outcome {
	std::string error;
	std::string output;
};

/** @param fill  lies in the output before, so that two runs show a byte that was never written */
Outcome Unpack(Codec codec, std::string_view packed, std::size_t size, char fill) {
	Outcome outcome;
	outcome.output.assign(size + kMargin, fill);
	try {
		tarn::archive::Decompress(codec, packed, outcome.output.data(), size);
	} catch (const tarn::Error& error) {
		outcome.error = error.what();
		Require(!outcome.error.empty(), "an error has a reason");
	}
	Require(std::all_of(outcome.output.end() - static_cast<std::ptrdiff_t>(kMargin), outcome.output.end(),
	            [fill](char byte) { return byte == fill; }),
	    "nothing is written behind the output");
	outcome.output.resize(outcome.error.empty() ? size : 0);
	return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	constexpr std::size_t kPrefix = 4;
	constexpr unsigned kByteBits = 8;
	if (size < kPrefix) {
		return 0;
	}
	std::size_t wanted = data[0] | static_cast<std::size_t>(data[1]) << kByteBits;
	wanted = std::min<std::size_t>(wanted | static_cast<std::size_t>(data[2]) << (2 * kByteBits), kMaxOutput);
	const auto codec = static_cast<Codec>(data[3] % tarn::archive::kCodecCount);
	const std::string_view packed(reinterpret_cast<const char*>(data) + kPrefix, size - kPrefix);
	const Outcome outcome = Unpack(codec, packed, wanted, 'x');
	const Outcome again = Unpack(codec, packed, wanted, 'y');
	Require(outcome.error == again.error, "\"" + outcome.error + "\", then \"" + again.error + "\"");
	Require(outcome.output == again.output, "another output the second time");
	return 0;
}
