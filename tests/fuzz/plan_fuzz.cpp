// Plans of a replacement as a damaged disk may leave them: one that is believed is whole. The input is what follows the
// number of the system's start. Writes to the machine's own paths, so it is run in scripts/sandbox.
#include "dataupdate/internal/replacement_plan.h"
#include "dataupdate/paths.h"
#include "entry.h"
#include "scratch.h"

#include <filesystem>
#include <optional>
#include <string>

namespace {

using tarn::test::Require;

constexpr char kId[] = "fuzz";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const std::string start = tarn::test::Content("/proc/sys/kernel/random/boot_id") + '\0';
	const std::string path = tarn::dataupdate::StatePath(kId, "replacement");
	std::filesystem::create_directories(std::filesystem::path(path).parent_path());
	tarn::test::Put(path, start + std::string(tarn::test::Text(data, size)));
	const auto plan = tarn::dataupdate::ReadPlan(kId);
	const std::optional<int> version = tarn::dataupdate::ReadPlannedVersion(kId);
	if (plan) {
		Require(plan->files.Size() == plan->sources.Size(), "each file has a source");
		Require(!version || *version == plan->version.data_version, "a plan has one version");
	}
	return 0;
}
