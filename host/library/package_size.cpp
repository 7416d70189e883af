#include "host/library/package_size.h"

#include "base/file_io.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "dataupdate/utils.h"
#include "host/library/budget.h"

#include <tarncore/tarncore.h>

#include <boost/algorithm/string.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <locale>
#include <sstream>

namespace tarn::ctl {

namespace {

constexpr char kHttpClient[] = "/usr/bin/wget";
constexpr std::size_t kLongestAccount = 65536;

std::string WithoutBlanks(const std::string& line) {
	return boost::trim_copy_if(line, boost::is_any_of(" \t\r"));
}

/** The second word of "HTTP/1.1 200 OK" is that of a success. */
bool IsSuccess(const std::string& status_line) {
	const std::size_t blank = status_line.find(' ');
	return blank != std::string::npos && status_line.substr(blank + 1, 1) == "2";
}

/** No value when the client fails. */
std::optional<std::string> AccountOf(const std::string& link) {
	const UniqueFd account(memfd_create("headers", MFD_CLOEXEC));
	if (!account) {
		return std::nullopt;
	}
	// The client's own descriptors are others.
	const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(account.Get());
	const std::string agent = dataupdate::TarnGetUserAgent("database");
	if (TLIBCExecl(kHttpClient, TLIBC_EXEC_ISOLATED, "--spider", "--server-response", link.c_str(), "-O", kNoFile, "-o",
	        path.c_str(), "-U", agent.c_str(), "--dns-timeout=8", "--connect-timeout=15", "--tries=1", nullptr) != 0) {
		return std::nullopt;
	}
	return ReadSmallFile(account.Get(), kLongestAccount, path);
}

} // namespace

std::optional<std::uint64_t> AskPackageSize(const std::string& link) {
	if (link.empty() || link.front() == '-') {
		return std::nullopt;
	}
	try {
		const std::optional<std::string> account = AccountOf(link);
		return account ? SizeInHeaders(*account) : std::nullopt;
	} catch (const std::exception&) {
		return std::nullopt; // An endless list of headers.
	}
}

std::optional<std::uint64_t> SizeInHeaders(const std::string& account) {
	constexpr char kLength[] = "content-length:";
	bool is_success = false;
	std::optional<std::uint64_t> size;
	std::istringstream lines(account);
	for (std::string line; std::getline(lines, line);) {
		if (!StartsWith(line, "  ")) {
			continue; // The client's own words.
		}
		const std::string header = boost::to_lower_copy(WithoutBlanks(line), std::locale::classic());
		if (StartsWith(header, "http/")) {
			is_success = IsSuccess(header);
			size.reset();
		} else if (StartsWith(header, kLength)) {
			const std::string digits = WithoutBlanks(header.substr(sizeof kLength - 1));
			const bool is_number = !digits.empty() && std::isdigit(static_cast<unsigned char>(digits.back())) != 0;
			size = is_number ? ParseBytes(digits) : std::nullopt;
		}
	}
	return is_success ? size : std::nullopt;
}

} // namespace tarn::ctl
