#include "temp_data.h"

#include "log.h"
#include "paths.h"
#include "utils.h"

#include <boost/filesystem.hpp>

#include <algorithm>
#include <array>
#include <vector>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "strategy";

bool IsNumber(const std::string& text) {
	return !text.empty() &&
	       std::all_of(text.begin(), text.end(), [](char character) { return character >= '0' && character <= '9'; });
}

/** Whether "<id>_<suffix>" is a name that the strategies give; an id may itself end like a suffix of another one. */
bool IsTemporarySuffix(const std::string& suffix) {
	static const std::array<std::string, 3> kWords = {"full", "sum", "debug"};
	static const std::array<std::string, 3> kNumbered = {"v", "d", "delta_"};
	return std::find(kWords.begin(), kWords.end(), suffix) != kWords.end() ||
	       std::any_of(kNumbered.begin(), kNumbered.end(), [&suffix](const std::string& prefix) {
		       return suffix.compare(0, prefix.size(), prefix) == 0 && IsNumber(suffix.substr(prefix.size()));
	       });
}

} // namespace

void RemoveLeftovers(const std::string& base, const std::string& id) {
	const IOUtils io;
	const std::string prefix = TempPath(base, id, "");
	std::vector<std::string> leftovers;
	const auto collect = [&](const std::string& path) {
		if (path.compare(0, prefix.size(), prefix) == 0 && IsTemporarySuffix(path.substr(prefix.size()))) {
			leftovers.push_back(path);
		}
	};
	io.IterateDirectory(TempDirPath(base), collect, false);
	for (const std::string& path : leftovers) {
		io.RmRf(path);
	}
}

void CleanTarball(const std::string& path) noexcept {
	try {
		boost::filesystem::remove(path);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to clean tarball '%s': %s", path.c_str(), error.what());
	}
}

void CleanTmpData(const std::string& path) noexcept {
	try {
		IOUtils().RmRf(path);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to clean tmp data: %s", error.what());
	}
}

} // namespace tarn::dataupdate
