#include "publisher/vcdiff_encoder.h"

#include "archive/ed25519.h"
#include "base/file_io.h"
#include "base/text.h"
#include "decoder/decode.h"
#include "publisher/program.h"
#include "publisher/tree_changes.h"

#include <fcntl.h>
#include <xxhash.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <vector>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

struct HashStateDeleter {
	void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};

/** XXH3-128 in its canonical form, as hexadecimal digits. */
std::string ContentHash(const std::string& path, std::uint64_t size) {
	constexpr std::size_t kBlock = std::size_t{256} << 10U;
	const std::unique_ptr<XXH3_state_t, HashStateDeleter> state(XXH3_createState());
	if (!state || XXH3_128bits_reset(state.get()) != XXH_OK) {
		throw PublishError("There is no memory to hash " + path + ".");
	}
	const UniqueFd fd = OpenRegularFile(AT_FDCWD, path);
	std::vector<char> block(kBlock);
	for (std::uint64_t at = 0; at < size; at += block.size()) {
		block.resize(static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - at)));
		if (!ReadFullyAt(fd.Get(), block.data(), block.size(), at)) {
			throw PublishError(path + " became shorter while it was read.");
		}
		XXH3_128bits_update(state.get(), block.data(), block.size());
	}
	XXH128_canonical_t canonical;
	XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state.get()));
	return Hex(canonical.digest, sizeof(canonical.digest));
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
	const std::uint64_t target_size = fs::file_size(target);
	const std::string header = "-ATARNVCD1 " + std::to_string(source_size) + " " + std::to_string(target_size) + " " +
	                           ContentHash(target, target_size);
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
		vcdiff::DecodeFile(source, result, patch);
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
