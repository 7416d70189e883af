#include "platform/tarncore/hostinfo.h"

#include "base/text.h"
#include "platform/c_boundary.h"

#include <tarncore/tarncore.h>

#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace tarn::core {
namespace {

/** A longer value is no name but an accident, and the whole string must fit into callers' buffers. */
constexpr std::size_t kLongestPart = 128;

/** A value of an os-release file: shell quoting taken off. */
std::string Unquote(const std::string& value) {
	std::string plain;
	char quote = '\0';
	for (std::size_t i = 0; i < value.size() && plain.size() < kLongestPart; ++i) {
		const char c = value[i];
		if (c == '\\' && quote != '\'' && i + 1 < value.size()) {
			plain += value[++i];
		} else if (quote == '\0' && (c == '"' || c == '\'')) {
			quote = c;
		} else if (c == quote) {
			quote = '\0';
		} else {
			plain += c;
		}
	}
	return plain;
}

/** Keeps a part from ending the header line, or the bracketed comment that it stands in. */
std::string Sanitise(std::string part) {
	const auto is_unfit = [](char c) { return c < ' ' || c > '~' || std::strchr("()\\;", c) != nullptr; };
	std::replace_if(part.begin(), part.end(), is_unfit, '_');
	return part;
}

utsname Kernel() {
	utsname kernel = {};
	uname(&kernel);
	return kernel;
}

} // namespace

const std::vector<std::string>& OsReleasePaths() {
	static const std::vector<std::string> paths = {"/etc/os-release", "/usr/lib/os-release"};
	return paths;
}

std::string OsName(const std::vector<std::string>& os_release_paths) {
	for (const std::string& path : os_release_paths) {
		std::ifstream file(path);
		std::string name;
		std::string version;
		for (std::string line; std::getline(file, line);) {
			if (StartsWith(line, "NAME=")) {
				name = Unquote(line.substr(5));
			} else if (StartsWith(line, "VERSION_ID=")) {
				version = Unquote(line.substr(11));
			}
		}
		if (!name.empty()) {
			return version.empty() ? name : name.append(" ").append(version);
		}
	}
	return Kernel().sysname;
}

std::string UserAgent(const std::string& category, const std::vector<std::string>& os_release_paths) {
	return std::string("tarn/") + TARN_VERSION + " (" + Sanitise(OsName(os_release_paths)) + "; " +
	       Sanitise(Kernel().machine) + ") " + Sanitise(category);
}

} // namespace tarn::core

int TLIBHostinfoUserAgentGet(const char* category, char* buffer, std::size_t size) {
	if (category == nullptr || buffer == nullptr) {
		return tarn::Fail(EINVAL);
	}
	return tarn::WithoutExceptions([&] {
		const std::string text = tarn::core::UserAgent(category, tarn::core::OsReleasePaths());
		if (text.size() >= size) {
			return tarn::Fail(ERANGE);
		}
		std::memcpy(buffer, text.c_str(), text.size() + 1);
		return static_cast<int>(text.size());
	});
}
