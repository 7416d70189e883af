#include "publisher/mirror/rclone.h"

#include "base/file_io.h"
#include "base/process.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "publisher/common/json_text.h"
#include "publisher/common/program.h"
#include "publisher/common/publish_error.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>

namespace tarn::publisher {

namespace {

constexpr int kSignalBase = 128;
constexpr std::size_t kBlock = 4096;

[[noreturn]] void FailToRun(int error) {
	throw PublishError(ErrnoText("rclone could not be run", error) + ".");
}

UniqueFd MemoryFile(const std::string& content) {
	UniqueFd fd(memfd_create("tarndbudpub-mirror", MFD_CLOEXEC));
	if (!fd || !WriteAll(fd.Get(), content.data(), content.size()) || lseek(fd.Get(), 0, SEEK_SET) != 0) {
		FailToRun(errno);
	}
	return fd;
}

std::string ContentOf(const UniqueFd& file) {
	struct stat status {};
	if (fstat(file.Get(), &status) != 0) {
		FailToRun(errno);
	}
	std::string content(static_cast<std::size_t>(status.st_size), '\0');
	if (ReadAllAt(file.Get(), content.data(), content.size(), 0) != status.st_size) {
		FailToRun(errno);
	}
	return content;
}

/** "2026/11/22 10:20:57 Failed to ..." without the time. */
std::string WithoutTime(const std::string& line) {
	const std::size_t end = line.find_first_not_of("0123456789/: ");
	return end == std::string::npos ? "" : line.substr(end);
}

/** Understands the lines that rclone logs. */
class LogReader {
public:
	explicit LogReader(const TransferProgress& progress) : progress_(progress) {}

	/** Reads until rclone has closed its end. */
	void ReadAll(const UniqueFd& pipe) {
		std::array<char, kBlock> block = {};
		ssize_t size = 0;
		while ((size = RetryOnInterrupt([&] { return read(pipe.Get(), block.data(), block.size()); })) > 0) {
			pending_.append(block.data(), static_cast<std::size_t>(size));
			TakeLines();
		}
		TakeLine(pending_);
	}
	const std::string& Error() const { return error_; }

private:
	void TakeLines() {
		for (std::size_t end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n')) {
			TakeLine(pending_.substr(0, end));
			pending_.erase(0, end + 1);
		}
	}

	void TakeLine(const std::string& line) {
		if (const std::optional<Json::Value> value = ParseJson(line); value && value->isObject()) {
			TakeEntry(*value);
		} else if (const std::string text = WithoutTime(line); StartsWith(text, "Failed ")) {
			error_ = Printable(text);
		}
	}

	void TakeEntry(const Json::Value& entry) {
		if (entry["stats"].isObject() && progress_) {
			progress_(entry["stats"]["bytes"].asUInt64(), entry["stats"]["totalBytes"].asUInt64());
		}
		const std::string level = entry["level"].asString();
		if (level == "error" || level == "fatal" || level == "critical") {
			const std::string object = entry["object"].asString();
			error_ = Printable((object.empty() ? "" : object + ": ") + entry["msg"].asString());
		}
	}

	const TransferProgress& progress_;
	std::string pending_;
	std::string error_;
};

process::Program ProgramFor(const std::vector<std::string>& arguments) {
	const std::optional<std::string> path = FindProgram("rclone");
	if (!path) {
		throw PublishError("rclone is not installed, or not in a directory that PATH names.");
	}
	process::Program program;
	program.path = *path;
	// Nobody could answer a question: what rclone reads is the list of files.
	program.arguments = {"--use-json-log", "--log-level", "INFO", "--stats=1s", "--ask-password=0"};
	program.arguments.insert(program.arguments.end(), arguments.begin(), arguments.end());
	program.death_signal = SIGKILL;
	return program;
}

} // namespace

std::string RcloneResult::Description() const {
	const std::string end = status > kSignalBase ? "was killed by signal " + std::to_string(status - kSignalBase)
	                                             : "failed with status " + std::to_string(status);
	return "rclone " + end + (error.empty() ? "" : ": " + WithoutEnd(error));
}

RcloneResult RunRclone(
    const std::vector<std::string>& arguments, const std::string& input, const TransferProgress& progress) {
	process::Program program = ProgramFor(arguments);
	const UniqueFd in = MemoryFile(input);
	const UniqueFd out = MemoryFile("");
	std::array<int, 2> ends = {};
	if (pipe2(ends.data(), O_CLOEXEC) != 0) {
		FailToRun(errno);
	}
	const UniqueFd log(ends[0]);
	UniqueFd log_end(ends[1]);
	program.streams = {in.Get(), out.Get(), log_end.Get()};
	pid_t child = -1;
	int status = 0;
	int failure = process::Start(program, child);
	log_end.Reset();
	LogReader reader(progress);
	if (failure == 0) {
		reader.ReadAll(log);
		failure = process::Wait(child, status);
	}
	if (failure != 0) {
		FailToRun(failure);
	}
	const int code = WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
	return {code, ContentOf(out), reader.Error()};
}

} // namespace tarn::publisher
