#include "platform/tarncore/complaints.h"

#include "base/text.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>

namespace tarn::core {

namespace {

constexpr std::size_t kKept = 4096;
constexpr std::size_t kLongestLine = 300;

/** What the client says besides what went wrong. */
bool IsComplaint(const std::string& line) {
	constexpr const char* kOthers[] = {"Giving up.", "Retrying.", "To connect to "};
	return line.find_first_not_of(" \t\r") != std::string::npos &&
	       std::none_of(
	           std::begin(kOthers), std::end(kOthers), [&](const char* other) { return StartsWith(line, other); });
}

} // namespace

std::string LastComplaint(const std::string& output) {
	std::istringstream lines(output);
	std::string last;
	for (std::string line; std::getline(lines, line);) {
		if (IsComplaint(line)) {
			last = line;
		}
	}
	return PlainAscii(last, kLongestLine);
}

Complaints::Complaints() {
	std::array<int, 2> ends = {-1, -1};
	if (pipe2(ends.data(), O_CLOEXEC) != 0) {
		return;
	}
	read_end_ = UniqueFd(ends[0]);
	write_end_ = UniqueFd(ends[1]);
	if (fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) {
		write_end_.Reset(); // Draining would wait.
	}
}

void Complaints::Drain() {
	std::array<char, kKept> buffer{};
	ssize_t count = 0;
	while ((count = read(read_end_.Get(), buffer.data(), buffer.size())) > 0) {
		tail_.append(buffer.data(), static_cast<std::size_t>(count));
		tail_.erase(0, tail_.size() - std::min(tail_.size(), kKept));
	}
}

} // namespace tarn::core
