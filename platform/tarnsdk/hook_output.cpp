#include "platform/tarnsdk/hook_output.h"

#include "base/file_io.h"
#include "base/text.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>

namespace tarn::sdk {

namespace {

constexpr std::size_t kKeptBytes = 4096;
constexpr std::size_t kLongestLine = 300;
constexpr int kMostReads = 64; // So that a hook that never stops writing does not keep its watcher from the clock.

} // namespace

bool HookStream::Open() {
	std::array<int, 2> ends = {-1, -1};
	if (pipe2(ends.data(), O_CLOEXEC) != 0) {
		return false;
	}
	read_end_ = UniqueFd(ends[0]);
	write_end_ = UniqueFd(ends[1]);
	// Only the reader's end: the hook would not expect its own stream to refuse bytes.
	return fcntl(read_end_.Get(), F_SETFL, O_NONBLOCK) == 0;
}

void HookStream::Take() {
	std::array<char, 4096> buffer{};
	for (int reads = 0; read_end_ && reads < kMostReads; ++reads) {
		const ssize_t got = RetryOnInterrupt([&] { return read(read_end_.Get(), buffer.data(), buffer.size()); });
		if (got < 0 && errno == EAGAIN) {
			return;
		}
		if (got <= 0) {
			read_end_.Reset();
			return;
		}
		beginning_.append(buffer.data(), std::min(static_cast<std::size_t>(got), kKeptBytes - beginning_.size()));
	}
}

std::string HookStream::FirstLine() const {
	std::istringstream lines(beginning_);
	for (std::string line; std::getline(lines, line);) {
		const std::string plain = PlainAscii(line, kLongestLine);
		const std::size_t begin = plain.find_first_not_of(' ');
		if (begin != std::string::npos) {
			return plain.substr(begin, plain.find_last_not_of(' ') + 1 - begin);
		}
	}
	return "";
}

} // namespace tarn::sdk
