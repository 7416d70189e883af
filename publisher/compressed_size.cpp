#include "publisher/compressed_size.h"

#include "archive/tar_writer.h"
#include "base/error.h"
#include "base/file_io.h"
#include "publisher/publish_error.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

namespace tarn::publisher {

namespace {

/** Runs what reads a file; what it throws becomes a sentence with the file's name. Compression has sentences of its
 * own. */
template<typename Function>
auto NamingFile(const std::string& path, const Function& read) {
	try {
		return read();
	} catch (const Error& error) {
		throw PublishError(path + " cannot be read: it " + error.what() + ".");
	}
}

std::uint64_t SizeOf(int fd) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		ThrowErrno("has no size");
	}
	return static_cast<std::uint64_t>(status.st_size);
}

} // namespace

std::optional<std::uint64_t> CompressedSizeBelow(std::uint64_t limit, const std::string& path, int level) {
	constexpr std::size_t kBlock = std::size_t{128} << 10U;
	const UniqueFd fd = NamingFile(path, [&] { return OpenRegularFile(AT_FDCWD, path); });
	const std::uint64_t size = NamingFile(path, [&] { return SizeOf(fd.Get()); });
	std::uint64_t compressed = 0;
	archive::ZstdWriter writer(level, [&compressed](std::string_view bytes) { compressed += bytes.size(); });
	writer.ExpectSize(size);
	std::vector<char> block(static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, size)));
	for (std::uint64_t at = 0; at < size && compressed < limit; at += block.size()) {
		block.resize(static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - at)));
		NamingFile(path, [&] {
			if (!ReadFullyAt(fd.Get(), block.data(), block.size(), at)) {
				throw Error("became shorter");
			}
		});
		writer.Write({block.data(), block.size()});
	}
	if (compressed < limit) {
		writer.Finish();
	}
	return compressed < limit ? std::optional(compressed) : std::nullopt;
}

} // namespace tarn::publisher
