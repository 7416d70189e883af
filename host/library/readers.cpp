#include "host/library/readers.h"

#include "dataupdate/paths.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

namespace tarn::ctl {

namespace {

constexpr char kLocks[] = "/proc/locks";

/** As the system's list of locks names it; empty for a missing file. */
std::string NameInList(const std::string& path) {
	struct stat status {};
	std::array<char, 64> name{};
	if (stat(path.c_str(), &status) != 0) {
		return "";
	}
	const int length = std::snprintf(name.data(), name.size(), "%02x:%02x:%ju", major(status.st_dev),
	    minor(status.st_dev), static_cast<std::uintmax_t>(status.st_ino));
	return {name.data(), static_cast<std::size_t>(length)};
}

} // namespace

std::vector<pid_t> ReadersOf(const std::string& id) {
	const std::string file = NameInList(dataupdate::UsingLockPath(id));
	if (file.empty()) {
		return {};
	}
	std::ifstream list(kLocks);
	return ReadersIn({std::istreambuf_iterator<char>(list), std::istreambuf_iterator<char>()}, file);
}

std::vector<pid_t> ReadersIn(const std::string& locks, const std::string& file) {
	std::vector<pid_t> readers;
	std::istringstream lines(locks);
	for (std::string line; std::getline(lines, line);) {
		// "7: FLOCK  ADVISORY  READ 4242 00:1b:4711 0 EOF"; who waits has "->" in the second place.
		std::istringstream words(line);
		std::string number;
		std::string kind;
		std::string strictness;
		std::string access;
		std::string place;
		pid_t process = 0;
		if (words >> number >> kind >> strictness >> access >> process >> place && kind == "FLOCK" &&
		    access == "READ" && place == file) {
			readers.push_back(process);
		}
	}
	return readers;
}

} // namespace tarn::ctl
