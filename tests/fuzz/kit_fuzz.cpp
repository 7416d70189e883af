// Hostile kits: the reader hands out parts as its table describes them or ends with an error of its own, and whatever
// it accepts can be written again as the same members. The input is the kit.
#include "base/error.h"
#include "entry.h"
#include "in_memory.h"
#include "kit/layout.h"
#include "kit/reader.h"
#include "promise.h"

#include <string>
#include <utility>

namespace {

using tarn::test::InMemory;
using tarn::test::Require;

void ReadParts(const tarn::kit::Reader& reader, std::size_t file_size) {
	std::size_t described = 0;
	for (const tarn::kit::Part& part : reader.Parts()) {
		const std::string name = NameOf(part);
		Require(name.find('/') == std::string::npos && name.front() != '.', "a name stays in its directory");
		Require(tarn::kit::SizeInHeader(tarn::kit::MakeHeader(name, part.size)) == part.size, "a size is told");
		described += tarn::kit::kBlockSize + part.size;
		std::size_t handed = 0;
		try {
			reader.Read(part, [&handed](std::string_view bytes) { handed += bytes.size(); });
		} catch (const tarn::Error&) {
			// A digest that does not fit.
		}
		Require(handed == part.size, "a part of a whole file has all of its bytes");
	}
	Require(described < file_size, "the parts fit into the file");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	try {
		const tarn::kit::Reader reader(InMemory(data, size));
		ReadParts(reader, size);
	} catch (const tarn::Error& error) {
		Require(*error.what() != '\0', "an error has a reason");
	}
	return 0;
}
