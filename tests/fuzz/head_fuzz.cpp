// Hostile heads and tables of an archive, before any signature is believed: what is read is what lies there. The input
// is the archive.
#include "archive/file.h"
#include "entry.h"
#include "scratch.h"

#include <string>

namespace {

using tarn::archive::ArchiveFile;
using tarn::test::Require;

std::string Written(const ArchiveFile& archive) {
	std::string bytes = EncodeHead(archive.Head()) + std::string(archive.Metadata());
	for (const tarn::archive::Frame& frame : archive.Frames()) {
		bytes += EncodeFrame(frame);
	}
	return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const tarn::test::Scratch scratch;
	const std::string path = scratch / "archive";
	const std::string_view input = tarn::test::Text(data, size);
	tarn::test::Put(path, input);
	try {
		const ArchiveFile archive(path);
		Require(archive.Head().FileSize() == size, "an archive has the size that its head says");
		const std::string written = Written(archive);
		Require(input.substr(0, written.size()) == written, "what was read is what lies there");
		std::string frame;
		for (std::size_t index = 0; index < archive.Frames().size(); ++index) {
			archive.ReadFrame(index, frame);
		}
	} catch (const tarn::Error& error) {
		Require(*error.what() != '\0', "an error has a reason");
	}
	return 0;
}
