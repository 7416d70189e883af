#include "host/library/move_output.h"

#include "base/file_io.h"
#include "base/process.h"
#include "base/text.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

namespace tarn::ctl {

namespace {

bool IsOfMove(const std::string& line) {
	return StartsWith(line, "/bin/mv: ") || StartsWith(line, "mv: ");
}

} // namespace

MoveOutput::MoveOutput() {
	std::array<int, 2> ends = {-1, -1};
	UniqueFd stream(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
	if (!stream || pipe2(ends.data(), O_CLOEXEC) != 0) {
		return;
	}
	read_end_ = UniqueFd(ends[0]);
	const UniqueFd write_end(ends[1]); // Which the thread outlives only when the stream has become another such end.
	stream_ = std::move(stream);
	const process::AllSignalsBlocked blocked; // They are for the main thread.
	thread_ = std::thread([this] { PassOn(); });
	dup2(write_end.Get(), STDERR_FILENO);
}

MoveOutput::~MoveOutput() {
	End();
}

std::size_t MoveOutput::End() {
	if (thread_.joinable()) {
		dup2(stream_.Get(), STDERR_FILENO); // Closes the pipe's last end, by which the thread ends.
		thread_.join();
	}
	return lines_ - std::min(lines_, kShownLines);
}

void MoveOutput::PassOn() {
	constexpr std::size_t kPiece = 4096;
	constexpr std::size_t kLongestLine = 16384;
	std::array<char, kPiece> buffer{};
	std::string line;
	for (ssize_t count = 0; (count = read(read_end_.Get(), buffer.data(), buffer.size())) > 0;) {
		for (ssize_t at = 0; at < count; ++at) {
			line += buffer[static_cast<std::size_t>(at)];
			if (line.back() == '\n' || line.size() == kLongestLine) {
				PassOn(line);
				line.clear();
			}
		}
	}
	PassOn(line);
}

void MoveOutput::PassOn(const std::string& line) {
	if (IsOfMove(line) && ++lines_ > kShownLines) {
		return;
	}
	// Whoever closed the other end of the stream does not want to know.
	[[maybe_unused]] const bool ignored = WriteAll(stream_.Get(), line.data(), line.size());
}

} // namespace tarn::ctl
