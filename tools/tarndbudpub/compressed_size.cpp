#include "compressed_size.h"

#include "publish_error.h"
#include "tar_zstd_writer.h"
#include "tarncodesign/archive_error.h"
#include "tarncodesign/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

namespace tarn::publisher {

std::optional<std::uint64_t> CompressedSizeBelow(std::uint64_t limit, const std::string& path, int level) {
	constexpr std::size_t kBlock = std::size_t{128} << 10U;
	try {
		const UniqueFd fd = codesign::OpenRegularFile(AT_FDCWD, path);
		struct stat status {};
		if (fstat(fd.Get(), &status) != 0) {
			codesign::ThrowErrno("has no size");
		}
		const auto size = static_cast<std::uint64_t>(status.st_size);
		std::uint64_t compressed = 0;
		ZstdWriter writer(level, [&compressed](std::string_view bytes) { compressed += bytes.size(); });
		writer.ExpectSize(size);
		std::vector<char> block(static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, size)));
		for (std::uint64_t at = 0; at < size && compressed < limit; at += block.size()) {
			block.resize(static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - at)));
			if (!codesign::ReadFullyAt(fd.Get(), block.data(), block.size(), at)) {
				throw codesign::ArchiveError("became shorter");
			}
			writer.Write({block.data(), block.size()});
		}
		if (compressed < limit) {
			writer.Finish();
		}
		return compressed < limit ? std::optional(compressed) : std::nullopt;
	} catch (const codesign::ArchiveError& error) {
		throw PublishError(path + " cannot be read: it " + error.what() + ".");
	}
}

} // namespace tarn::publisher
