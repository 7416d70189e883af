#include "host/library/process.h"

#include "dataupdate/progress.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

namespace tarn::ctl {

namespace {

constexpr mode_t kOwn = 022;
std::optional<mode_t> callers;

constexpr std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};
// A helper may be started in the moment after the request, so they are looked for again and again.
constexpr int kHelperPeriodMilliseconds = 100;

std::atomic<pid_t> forward_to(0);

/** What somebody chose to ignore, as nohup does, stays ignored. */
sigset_t WatchedSignals() {
	sigset_t watched;
	sigemptyset(&watched);
	for (const int number : kSignals) {
		struct sigaction action = {};
		if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
			sigaddset(&watched, number);
		}
	}
	return watched;
}

int Checked(int descriptor, const char* call) {
	if (descriptor < 0) {
		throw std::system_error(errno, std::generic_category(), call);
	}
	return descriptor;
}

/** Ends the downloader or the decoder; during any other activity no child is theirs. */
void EndHelpers() {
	const dataupdate::Phase phase = dataupdate::CurrentActivity().phase;
	if (phase != dataupdate::Phase::kDownload && phase != dataupdate::Phase::kPatch) {
		return;
	}
	std::error_code error;
	for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", error)) {
		std::ifstream children(thread.path() / "children");
		for (pid_t child = 0; children >> child;) {
			kill(child, SIGTERM);
		}
	}
}

} // namespace

void SetOwnUmask() {
	callers = umask(kOwn);
}

mode_t CallersUmask() {
	if (callers) {
		return *callers;
	}
	// The mask can only be read by setting it.
	const mode_t present = umask(kOwn);
	umask(present);
	return present;
}

InterruptionWatch::InterruptionWatch() : watched_(WatchedSignals()) {
	pthread_sigmask(SIG_BLOCK, &watched_, &previous_);
	signals_ = UniqueFd(Checked(signalfd(-1, &watched_, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"));
	std::array<int, 2> ends = {-1, -1};
	Checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
	ended_ = UniqueFd(ends[0]);
	ending_ = UniqueFd(ends[1]);
	thread_ = std::thread([this] { Run(); });
}

InterruptionWatch::~InterruptionWatch() {
	ending_.Reset(); // Cannot fail, as writing could.
	thread_.join();
	pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

void InterruptionWatch::EndBySignal() const {
	const int number = number_;
	if (number == 0) {
		return;
	}
	struct sigaction action = {};
	action.sa_handler = SIG_DFL;
	sigaction(number, &action, nullptr);
	sigset_t own;
	sigemptyset(&own);
	sigaddset(&own, number);
	raise(number);
	pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
}

void InterruptionWatch::Run() {
	std::array<pollfd, 2> events = {{{signals_.Get(), POLLIN, 0}, {ended_.Get(), POLLIN, 0}}};
	while (events[1].revents == 0) {
		poll(events.data(), events.size(), number_ == 0 ? -1 : kHelperPeriodMilliseconds);
		if ((events[0].revents & POLLIN) != 0) {
			Take();
		}
		if (dataupdate::IsInterruptionRequested()) {
			EndHelpers();
		}
	}
}

void InterruptionWatch::Take() {
	signalfd_siginfo info = {};
	if (read(signals_.Get(), &info, sizeof info) != sizeof info) {
		return;
	}
	const pid_t child = forward_to;
	if (child > 0 && info.ssi_code != SI_KERNEL) {
		kill(child, static_cast<int>(info.ssi_signo));
	}
	number_ = static_cast<int>(info.ssi_signo);
	dataupdate::RequestInterruption();
}

SignalForwarding::SignalForwarding(pid_t child) {
	forward_to = child;
}

SignalForwarding::~SignalForwarding() {
	forward_to = 0;
}

sigset_t MaskForChild() {
	sigset_t mask;
	pthread_sigmask(SIG_SETMASK, nullptr, &mask);
	for (const int number : kSignals) {
		sigdelset(&mask, number);
	}
	return mask;
}

} // namespace tarn::ctl
