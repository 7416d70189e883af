#include "publisher/vcdiff_encoder.h"

#include "decoder/content_hash.h"
#include "decoder/decode.h"
#include "publisher/input_file.h"
#include "publisher/program.h"

#include <filesystem>
#include <vector>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

std::string HashOf(InputFile& file) {
	decoder::ContentHash hash;
	for (std::string_view part = file.Next(); !part.empty(); part = file.Next()) {
		hash.Update(reinterpret_cast<const decoder::Byte*>(part.data()), part.size());
	}
	return hash.Hex();
}

std::uint64_t NextPowerOfTwo(std::uint64_t value, std::uint64_t least, std::uint64_t most) {
	std::uint64_t power = least;
	while (power < value && power < most) {
		power *= 2;
	}
	return power;
}

std::vector<std::string> Arguments(const std::string& source, const std::string& target, const std::string& patch) {
	// The encoder's limits. Devices keep a window in memory.
	constexpr std::uint64_t kMinWindow = std::uint64_t{512} << 10U;
	constexpr std::uint64_t kMaxWindow = std::uint64_t{16} << 20U;
	constexpr std::uint64_t kMaxSourceWindow = std::uint64_t{2} << 30U;
	const std::uint64_t source_size = fs::file_size(source);
	InputFile target_file(target);
	const std::uint64_t target_size = target_file.Size();
	const std::string header =
	    "-ATARNVCD1 " + std::to_string(source_size) + " " + std::to_string(target_size) + " " + HashOf(target_file);
	return {"-e", "-9", "-f", "-q", "-S",
	    "none",     // the package is compressed as a whole, which takes less than every patch by itself
	    "-D", "-R", // compressed files are patched as they are
	    "-I", "0",  // no limit to instructions that are looked at together
	    "-B", std::to_string(NextPowerOfTwo(source_size, kMinWindow, kMaxSourceWindow)), "-W",
	    std::to_string(NextPowerOfTwo(target_size, kMinWindow, kMaxWindow)), header, "-s", source, target, patch};
}

} // namespace

void EncodeVcdiff(const std::string& encoder, const std::string& source, const std::string& target,
    const std::string& patch, const std::string& scratch) {
	RunProgram(encoder, Arguments(source, target, patch), scratch + "/output", scratch + "/errors");
	const std::string result = scratch + "/decoded";
	try {
		decoder::DecodeFile(source, result, patch);
	} catch (const std::exception& error) {
		throw PublishError("the patch cannot be decoded: " + std::string(error.what()));
	}
	const bool same = SameBytes(result, target);
	fs::remove(result);
	if (!same) {
		throw PublishError("the patch makes another file");
	}
}

} // namespace tarn::publisher
