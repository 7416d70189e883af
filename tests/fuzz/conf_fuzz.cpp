// Hostile downloads.conf and volumes.conf: what is taken is in the range that the manual pages name. The input is read
// as either.
#include "entry.h"
#include "platform/tarncore/download.h"
#include "platform/tarnsdk/volume_list.h"
#include "scratch.h"

#include <unistd.h>

#include <chrono>
#include <string>

namespace {

using tarn::test::Require;

void ReadDownloads(const std::string& path) {
	constexpr std::uint64_t kMost = 999'999'999;
	const tarn::core::DownloadSettings settings = tarn::core::ReadDownloadSettings(path, geteuid());
	for (const std::chrono::seconds time : {settings.deadline, settings.patience}) {
		Require(time.count() > 0 && static_cast<std::uint64_t>(time.count()) <= kMost, "a time is in its range");
	}
	Require(settings.lowest_rate <= kMost, "a rate is in its range");
}

void ReadVolumes(const std::string& path) {
	tarn::sdk::VolumeConfig config;
	Require(tarn::sdk::ReadVolumeConfig(path, config) == 0, "a file that is there is read");
	Require(!config.patterns.empty(), "there is a pattern");
	for (const auto& list : {config.patterns, config.directories, config.exclusions}) {
		for (const std::string& entry : list) {
			Require(!entry.empty() && entry.front() == '/' && entry.size() < TARN_VOLUME_PATH_SIZE &&
			            (entry.size() == 1 || entry.back() != '/'),
			    "a path is absolute and fits: " + entry);
		}
	}
	static_cast<void>(tarn::sdk::MayHostServiceData(path, "/volume1"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const tarn::test::Scratch scratch;
	const std::string path = scratch / "conf";
	tarn::test::Put(path, tarn::test::Text(data, size));
	ReadDownloads(path);
	ReadVolumes(path);
	return 0;
}
