#include "platform/tarncore/download.h"

#include "base/file_io.h"
#include "base/mutex.h"
#include "base/unique_fd.h"
#include "platform/tarncore/download_guard.h"

#include <tarncore/tarncore.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

namespace tarn::core {
namespace {

constexpr std::chrono::milliseconds kPeriod(100);

/** The protections of the shipped settings file, which hold as well while that file is missing or not trusted. */
constexpr char kSettings[] = "netrc = off\nhsts = off\nmax_redirect = 5\nread_timeout = 60\n";

struct Limiter {
	Mutex mutex;
	TLIBCDownloadLimiter ask TARN_GUARDED_BY(mutex) = nullptr;
	void* data TARN_GUARDED_BY(mutex) = nullptr;
};

Limiter& HostLimiter() {
	static Limiter limiter;
	return limiter;
}

std::string& LastFailure() {
	thread_local std::string text;
	return text;
}

/** Asks the host, if it has set a function to ask. */
TLIBCDownloadLimits AskForLimits(const Download& download) {
	TLIBCDownloadLimits limits = {};
	Limiter& limiter = HostLimiter();
	// Held during the call, so that nobody is asked any more once another function has been set.
	const MutexLock guard(limiter.mutex);
	if (limiter.ask != nullptr) {
		limiter.ask(download.url.c_str(), download.file.c_str(), &limits, limiter.data);
	}
	return limits;
}

/** Sets what TLIBCDownloadFailureGet() returns in this thread. */
void KeepDownloadFailure(const std::string& text) {
	LastFailure() = text;
}

/** A file in memory that holds the fixed settings; empty with errno set when it cannot be made. */
UniqueFd MakeFixedSettings() {
	UniqueFd file(memfd_create("wgetrc", MFD_CLOEXEC));
	if (file && !WriteAll(file.Get(), kSettings, sizeof kSettings - 1)) {
		file.Reset();
	}
	return file;
}

int Tell(const Download& download, const DownloadEnd& end) {
	syslog(LOG_WARNING, "tarncore: the download of '%s' was ended: %s", download.url.c_str(), end.text.c_str());
	KeepDownloadFailure(end.text);
	return TLIBC_ERR_DOWNLOAD + end.reason;
}

} // namespace

std::optional<Download> AsDownload(const process::Program& program) {
	const std::vector<std::string>& arguments = program.arguments;
	const auto output = std::find(arguments.begin(), arguments.end(), "-O");
	if (program.path != kHttpClient || output == arguments.end() || output + 1 == arguments.end()) {
		return std::nullopt;
	}
	const auto is_no_option = [](const std::string& argument) { return argument.empty() || argument[0] != '-'; };
	const auto url = std::find_if(arguments.begin(), output, is_no_option);
	return Download{url == output ? "" : *url, *(output + 1)};
}

int RunDownload(process::Program& program, const Download& download, int& status) {
	using Clock = DownloadGuard::Clock;
	KeepDownloadFailure("");
	DownloadGuard guard(
	    ReadDownloadSettings(), AskForLimits(download), SpaceFor(download.file), FileSize(download.file), Clock::now());
	program.largest_file = guard.LargestFile();
	UniqueFd settings;
	if (program.environment) {
		// The system's own settings of the client would be obeyed before and without the administrator's for updates.
		settings = MakeFixedSettings();
		if (!settings) {
			return errno;
		}
		program.streams[0] = settings.Get();
		program.environment->push_back(std::string("SYSTEM_WGETRC=") + kFixedSettingsPath);
	}
	pid_t child = -1;
	if (const int error = process::Start(program, child); error != 0) {
		return error;
	}
	const auto may_go_on = [&] {
		return guard.MayGoOn(FileSize(download.file), SpaceFor(download.file), Clock::now());
	};
	if (const int error = process::WaitWatching(child, program.new_group, kPeriod, may_go_on, status); error != 0) {
		return error;
	}
	if (WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) {
		guard.NoteExcess();
	}
	// What came to its end at the last moment has come.
	const bool succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
	return guard.End() && !succeeded ? Tell(download, *guard.End()) : 0;
}

} // namespace tarn::core

void TLIBCDownloadLimiterSet(TLIBCDownloadLimiter limiter, void* data) {
	tarn::core::Limiter& own = tarn::core::HostLimiter();
	const tarn::MutexLock guard(own.mutex);
	own.ask = limiter;
	own.data = data;
}

const char* TLIBCDownloadFailureGet() {
	return tarn::core::LastFailure().c_str();
}
