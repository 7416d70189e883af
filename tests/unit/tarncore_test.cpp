#include "base/process.h"
#include "base/unique_fd.h"
#include "platform/tarncore/environment.h"
#include "platform/tarncore/hostinfo.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <tarncore/tarncore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <thread>

namespace {

using tarn::UniqueFd;
using tarn::test::ReadFile;
using tarn::test::SyslogCapture;
using tarn::test::TemporaryDirectory;
using tarn::test::WriteFile;
using testing::Contains;
using testing::HasSubstr;
using testing::UnorderedElementsAreArray;

constexpr const char* kShell = "/bin/sh";
constexpr unsigned int kIsolated = 0xBB;

/** Runs a shell script with an option mask; where the script finds the paths "$1" and "$2". */
int RunScript(
    unsigned int options, const std::string& script, const std::string& first, const std::string& second = "") {
	return TLIBCExecl(kShell, options, "-c", script.c_str(), "script", first.c_str(), second.c_str(),
	    static_cast<const char*>(nullptr));
}

std::vector<std::string> Split(const std::string& text, char separator) {
	std::vector<std::string> parts;
	std::istringstream stream(text);
	for (std::string part; std::getline(stream, part, separator);) {
		parts.push_back(part);
	}
	return parts;
}

/** The value of a line "name: value" of /proc/PID/status, as a number. */
std::uint64_t StatusMask(const std::string& status, const std::string& name) {
	const std::size_t at = status.find(name + ":");
	return std::stoull(status.substr(at + name.size() + 1), nullptr, 16);
}

std::uint64_t Bit(int signal_number) {
	return std::uint64_t{1} << static_cast<unsigned int>(signal_number - 1);
}

/** Sets an environment variable for as long as it lives. */
class Variable {
public:
	Variable(const char* name, const char* value) : name_(name) {
		if (const char* old = getenv(name); old != nullptr) {
			old_ = old;
		}
		setenv(name, value, 1);
	}
	~Variable() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }
	Variable(const Variable&) = delete;
	Variable& operator=(const Variable&) = delete;
	Variable(Variable&&) = delete;
	Variable& operator=(Variable&&) = delete;

private:
	std::string name_;
	std::optional<std::string> old_;
};

/** Sets a signal's disposition for as long as it lives. */
class Disposition {
public:
	Disposition(int number, void (*handler)(int)) : number_(number) {
		struct sigaction action = {};
		action.sa_handler = handler;
		sigaction(number, &action, &old_);
	}
	~Disposition() { sigaction(number_, &old_, nullptr); }
	Disposition(const Disposition&) = delete;
	Disposition& operator=(const Disposition&) = delete;
	Disposition(Disposition&&) = delete;
	Disposition& operator=(Disposition&&) = delete;

private:
	int number_;
	struct sigaction old_ = {};
};

/** Runs something in a forked process and gives its exit status. */
template<typename Work>
int InFork(Work work) {
	const pid_t child = fork();
	if (child == 0) {
		_exit(work());
	}
	int status = 0;
	waitpid(child, &status, 0);
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Exec, IsolatedMaskIsTheOneThatCallersPass) {
	EXPECT_EQ(TLIBC_EXEC_ISOLATED, 0xBB);
}

TEST(Exec, ChildSeesNothingOfAHostileEnvironmentButProxies) {
	const Variable wgetrc("WGETRC", "/tmp/hostile");
	const Variable system_wgetrc("SYSTEM_WGETRC", "/tmp/hostile");
	const Variable home("HOME", "/tmp/hostile");
	const Variable preload("LD_PRELOAD", "/tmp/hostile.so");
	const Variable ftp("ftp_proxy", "http://hostile/");
	const Variable http("http_proxy", "http://proxy:3128/");
	const Variable https("HTTPS_PROXY", "http://proxy:3129/");
	const Variable none("no_proxy", "localhost");
	const TemporaryDirectory directory;
	ASSERT_EQ(RunScript(kIsolated, "cat /proc/$$/environ > \"$1\"; true", directory / "environ"), 0);
	std::vector<std::string> expected = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", "HOME=/nonexistent",
	    "ftp_proxy=http://127.0.0.1:9/", "FTP_PROXY=http://127.0.0.1:9/", "http_proxy=http://proxy:3128/",
	    "HTTPS_PROXY=http://proxy:3129/", "no_proxy=localhost"};
	if (tarn::core::IsTrustedSettingsFile(tarn::core::kWgetrcPath, 0)) {
		expected.push_back(std::string("WGETRC=") + tarn::core::kWgetrcPath);
	}
	EXPECT_THAT(Split(ReadFile(directory / "environ"), '\0'), UnorderedElementsAreArray(expected));
}

TEST(Exec, HttpClientRunsInTheBuiltEnvironment) {
	const Variable no_proxy("no_proxy", "127.0.0.1");
	const TemporaryDirectory directory;
	// Nobody listens there, and 4 is the client's word for that; a client that disliked its settings would say 1 or 2.
	EXPECT_EQ(TLIBCExecl("/usr/bin/wget", kIsolated, "http://127.0.0.1:9/", "-O", (directory / "file").c_str(),
	              "--tries=1", static_cast<const char*>(nullptr)),
	    4);
}

TEST(Exec, EnvironmentIsInheritedUnlessABuiltOneIsAskedFor) {
	const Variable marker("TARN_TEST_MARKER", "seen");
	const TemporaryDirectory directory;
	ASSERT_EQ(RunScript(TLIBC_EXEC_WAIT, "cat /proc/$$/environ > \"$1\"; true", directory / "environ"), 0);
	EXPECT_THAT(Split(ReadFile(directory / "environ"), '\0'), Contains("TARN_TEST_MARKER=seen"));
}

TEST(Exec, ExitStatusIsReturnedAndKept) {
	EXPECT_EQ(RunScript(kIsolated, "exit 7", ""), 7);
	EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_EXIT + 7);
	EXPECT_EQ(RunScript(kIsolated, "exit 0", ""), 0);
}

TEST(Exec, ProgramKilledByASignalIsAFailure) {
	EXPECT_EQ(RunScript(kIsolated, "kill -TERM $$", ""), -1);
	EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_SIGNAL + SIGTERM);
}

TEST(Exec, ProgramThatCannotBeStartedIsAFailureWithItsReason) {
	const TemporaryDirectory directory;
	EXPECT_EQ(TLIBCExecl((directory / "absent").c_str(), kIsolated, static_cast<const char*>(nullptr)), -1);
	EXPECT_EQ(TLIBCErrGet(), ENOENT);
	WriteFile(directory / "plain", "#!/bin/sh\n");
	EXPECT_EQ(TLIBCExecl((directory / "plain").c_str(), kIsolated, static_cast<const char*>(nullptr)), -1);
	EXPECT_EQ(TLIBCErrGet(), EACCES);
	EXPECT_EQ(TLIBCExecl((directory / "absent").c_str(), 0, static_cast<const char*>(nullptr)), -1);
	EXPECT_EQ(TLIBCErrGet(), ENOENT);
	EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
	EXPECT_EQ(errno, ECHILD);
}

TEST(Exec, RelativePathsNullPathsAndUnknownOptionsAreRefused) {
	EXPECT_EQ(TLIBCExecl("true", kIsolated, static_cast<const char*>(nullptr)), -1);
	EXPECT_EQ(TLIBCErrGet(), EINVAL);
	TLIBCErrSet(0);
	EXPECT_EQ(TLIBCExecl(nullptr, kIsolated, static_cast<const char*>(nullptr)), -1);
	EXPECT_EQ(TLIBCErrGet(), EINVAL);
	TLIBCErrSet(0);
	EXPECT_EQ(TLIBCExecl("/bin/true", 0x101, static_cast<const char*>(nullptr)), -1);
	EXPECT_EQ(TLIBCErrGet(), EINVAL);
	EXPECT_EQ(TLIBCExec("true", nullptr, nullptr, nullptr, nullptr), -1);
}

TEST(Exec, ArgumentsArriveAsTheyAre) {
	const TemporaryDirectory directory;
	const std::string hostile = "$(touch x); `y` \"z\" *\n";
	ASSERT_EQ(RunScript(kIsolated, "printf %s \"$2\" > \"$1\"", directory / "argument", hostile), 0);
	EXPECT_EQ(ReadFile(directory / "argument"), hostile);
}

TEST(Exec, NoDescriptorReachesAnIsolatedChild) {
	const TemporaryDirectory directory;
	const UniqueFd leaking(open("/dev/zero", O_RDONLY)); // without close-on-exec, on purpose
	ASSERT_GT(leaking.Get(), 2);
	const std::string script =
	    R"((ls /proc/$$/fd) > "$1"; (readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2) > "$2"; true)";
	ASSERT_EQ(RunScript(kIsolated, script, directory / "numbers", directory / "streams"), 0);
	EXPECT_EQ(ReadFile(directory / "numbers"), "0\n1\n2\n");
	EXPECT_EQ(ReadFile(directory / "streams"), "/dev/null\n/dev/null\n/dev/null\n");
	ASSERT_EQ(RunScript(TLIBC_EXEC_WAIT, script, directory / "numbers", directory / "streams"), 0);
	EXPECT_THAT(Split(ReadFile(directory / "numbers"), '\n'), Contains(std::to_string(leaking.Get())));
}

TEST(Exec, ClosedStandardStreamsOfTheCallerAreNoProblem) {
	const TemporaryDirectory directory;
	const int result = InFork([&] {
		close(0);
		close(1);
		close(2);
		return RunScript(
		    kIsolated, "(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2) > \"$1\"; true", directory / "streams");
	});
	EXPECT_EQ(result, 0);
	EXPECT_EQ(ReadFile(directory / "streams"), "/dev/null\n/dev/null\n/dev/null\n");
}

TEST(Start, PassesDescriptorsOnThatHaveTheNumbersOfClosedStreams) {
	const TemporaryDirectory directory;
	const std::string from = directory / "from";
	const std::string to = directory / "to";
	WriteFile(from, "content");
	WriteFile(to, "");
	const int result = InFork([&] {
		close(0);
		close(1);
		close(2);
		tarn::process::Program program;
		program.path = "/bin/cat";
		const int input = open(from.c_str(), O_RDONLY | O_CLOEXEC);
		const int between = open(from.c_str(), O_RDONLY | O_CLOEXEC);
		const int output = open(to.c_str(), O_WRONLY | O_CLOEXEC);
		program.streams = {input, output, between}; // The last is overwritten by the output, unless it is saved.
		pid_t child = -1;
		int status = -1;
		return output == 2 && tarn::process::Start(program, child) == 0 && tarn::process::Wait(child, status) == 0
		           ? status
		           : -1;
	});
	EXPECT_EQ(result, 0);
	EXPECT_EQ(ReadFile(to), "content");
}

TEST(Exec, ADownloadOfACallerWithoutStreamsTellsWhyItFailed) {
	const TemporaryDirectory directory;
	setenv("no_proxy", "127.0.0.1", 1);
	const int result = InFork([&] {
		close(0);
		close(1);
		close(2);
		const std::string file = directory / "file";
		const int status = TLIBCExecl("/usr/bin/wget", TLIBC_EXEC_ISOLATED, "http://127.0.0.1:9/", "-O", file.c_str(),
		    "--tries=1", static_cast<const char*>(nullptr));
		WriteFile(directory / "reason", TLIBCDownloadFailureGet());
		return status;
	});
	EXPECT_EQ(result, 4);
	EXPECT_THAT(ReadFile(directory / "reason"), HasSubstr("Connection refused"));
}

TEST(Exec, SignalsAreResetUnlessTheyAreToBeKept) {
	const TemporaryDirectory directory;
	const Disposition ignored(SIGUSR2, SIG_IGN);
	sigset_t blocked;
	sigset_t old;
	sigemptyset(&blocked);
	sigaddset(&blocked, SIGUSR1);
	pthread_sigmask(SIG_BLOCK, &blocked, &old);
	const auto run = [&](unsigned int options) {
		const std::string file = directory / "status";
		const int result =
		    TLIBCExecl("/bin/cp", options, "/proc/self/status", file.c_str(), static_cast<const char*>(nullptr));
		return result == 0 ? ReadFile(file) : std::string();
	};
	const std::string reset = run(kIsolated);
	const std::string kept = run(kIsolated | TLIBC_EXEC_KEEP_SIGNALS);
	pthread_sigmask(SIG_SETMASK, &old, nullptr);
	EXPECT_EQ(StatusMask(reset, "SigBlk"), 0U);
	EXPECT_EQ(StatusMask(reset, "SigIgn"), 0U);
	EXPECT_NE(StatusMask(kept, "SigBlk") & Bit(SIGUSR1), 0U);
	EXPECT_NE(StatusMask(kept, "SigIgn") & Bit(SIGUSR2), 0U);
}

TEST(Exec, ChildLeadsAGroupOfItsOwnWhenAskedTo) {
	const TemporaryDirectory directory;
	const std::string script = R"(read -r pid name state parent group rest < /proc/$$/stat; echo "$pid $group" > "$1")";
	ASSERT_EQ(RunScript(kIsolated | TLIBC_EXEC_NEW_GROUP, script, directory / "group"), 0);
	const std::vector<std::string> own = Split(ReadFile(directory / "group"), ' ');
	EXPECT_EQ(own.at(0) + "\n", own.at(1));
	ASSERT_EQ(RunScript(kIsolated, script, directory / "group"), 0);
	EXPECT_THAT(ReadFile(directory / "group"), HasSubstr(" " + std::to_string(getpgrp()) + "\n"));
}

TEST(Exec, WaitingGoesOnAfterInterruptions) {
	static volatile sig_atomic_t interruptions = 0;
	interruptions = 0;
	const Disposition handler(SIGALRM, [](int) { interruptions = interruptions + 1; });
	const itimerval often = {{0, 2000}, {0, 2000}};
	setitimer(ITIMER_REAL, &often, nullptr);
	const int result = RunScript(kIsolated, "sleep 0.1; exit 3", "");
	const itimerval never = {};
	setitimer(ITIMER_REAL, &never, nullptr);
	EXPECT_EQ(result, 3);
	EXPECT_GT(interruptions, 0);
}

TEST(Exec, EndThatCannotBeLearntIsAFailure) {
	const Disposition ignored(SIGCHLD, SIG_IGN);
	EXPECT_EQ(RunScript(kIsolated, "exit 0", ""), -1);
	EXPECT_EQ(TLIBCErrGet(), ECHILD);
}

TEST(Exec, ProgramThatNobodyWaitsForLeavesNoZombie) {
	const TemporaryDirectory directory;
	ASSERT_EQ(mkfifo((directory / "told").c_str(), 0600), 0);
	ASSERT_EQ(RunScript(TLIBC_EXEC_CLOSE_FDS,
	              "read -r pid name state parent rest < /proc/$$/stat; echo $parent > \"$1\"", directory / "told"),
	    0);
	EXPECT_NE(ReadFile(directory / "told"), std::to_string(getpid()) + "\n");
	EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
	EXPECT_EQ(errno, ECHILD);
}

/** Forks a caller, and gives its number as soon as the program that it runs has said its own. */
template<typename Work>
pid_t ForkCaller(const std::string& told, Work work, pid_t& program) {
	const pid_t caller = fork();
	if (caller == 0) {
		_exit(work());
	}
	program = std::stoi(ReadFile(told));
	return caller;
}

void KillAndReap(pid_t caller) {
	ASSERT_EQ(kill(caller, SIGKILL), 0);
	ASSERT_EQ(waitpid(caller, nullptr, 0), caller);
}

/** Kills the caller of a program that tells its number to the FIFO "told", and expects the program to die as well. */
void ExpectDeathWithCaller(const TemporaryDirectory& directory, const std::function<int()>& run) {
	ASSERT_EQ(mkfifo((directory / "told").c_str(), 0600), 0);
	pid_t program = -1;
	const pid_t caller = ForkCaller(directory / "told", run, program);
	const UniqueFd watched(static_cast<int>(syscall(SYS_pidfd_open, program, 0)));
	ASSERT_TRUE(watched);
	KillAndReap(caller);
	pollfd end = {watched.Get(), POLLIN, 0};
	EXPECT_EQ(poll(&end, 1, 20000), 1);
	kill(program, SIGKILL);
}

TEST(Exec, ProgramThatIsWaitedForDiesWithItsCaller) {
	const TemporaryDirectory directory;
	ExpectDeathWithCaller(
	    directory, [&] { return RunScript(kIsolated, "echo $$ > \"$1\"; exec sleep 60", directory / "told"); });
}

TEST(Exec, MoveDiesWithItsCaller) {
	const TemporaryDirectory directory;
	ExpectDeathWithCaller(directory, [&] {
		return TLIBCExec(kShell, "-c", "echo $$ > \"$0\"; exec sleep 60", (directory / "told").c_str(), nullptr);
	});
}

TEST(Exec, MoveIsOutOfTheReachOfATerminalsKeys) {
	// The third of what stands behind the name in parentheses is the process group's number.
	constexpr char kLeads[] = R"sh(test "$(sed 's/.*) //' /proc/$$/stat | cut -d' ' -f3)" = $$)sh";
	EXPECT_EQ(TLIBCExec(kShell, "-c", kLeads, nullptr, nullptr), 0);
}

TEST(Exec, SimpleFormReportsEveryFailureAsNegative) {
	EXPECT_EQ(TLIBCExec(kShell, "-c", "exit 0", nullptr, nullptr), 0);
	EXPECT_EQ(TLIBCExec(kShell, "-c", "exit 5", nullptr, nullptr), -1);
	EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_EXIT + 5);
	EXPECT_EQ(TLIBCExec(kShell, "-c", "kill -KILL $$", nullptr, nullptr), -1);
	EXPECT_EQ(TLIBCExec("/nonexistent/program", nullptr, nullptr, nullptr, nullptr), -1);
	EXPECT_EQ(TLIBCErrGet(), ENOENT);
}

TEST(Exec, SimpleFormStopsAtTheFirstNullArgument) {
	EXPECT_EQ(TLIBCExec(kShell, "-c", "test $# = 0", nullptr, "ignored"), 0);
	EXPECT_EQ(TLIBCExec(kShell, "-c", "test $# = 1", "name", "first"), 0);
}

TEST(Exec, SimpleFormMovesADirectory) {
	const TemporaryDirectory directory;
	WriteFile(directory / "from/file", "content");
	ASSERT_EQ(TLIBCExec("/bin/mv", (directory / "from").c_str(), (directory / "to").c_str(), nullptr, nullptr), 0);
	EXPECT_EQ(ReadFile(directory / "to/file"), "content");
	EXPECT_EQ(TLIBCFileExist((directory / "from").c_str()), 0);
}

TEST(Error, IsKeptForEachThread) {
	TLIBCErrSet(5);
	int other = -1;
	std::thread([&] { other = TLIBCErrGet(); }).join();
	EXPECT_EQ(other, 0);
	EXPECT_EQ(TLIBCErrGet(), 5);
}

class Wgetrc : public testing::Test {
protected:
	void SetUp() override {
		WriteFile(path_, "max_redirect = 3\n");
		chmod(path_.c_str(), 0644);
	}

	std::string Value(uid_t owner) const {
		for (const std::string& variable : tarn::core::BuildEnvironment(path_, owner)) {
			if (variable.compare(0, 7, "WGETRC=") == 0) {
				return variable.substr(7);
			}
		}
		return "none";
	}

	SyslogCapture log_;
	TemporaryDirectory directory_;
	std::string path_ = directory_ / "wgetrc";
};

TEST_F(Wgetrc, IsUsedWhenOnlyItsAdministratorMayWriteIt) {
	EXPECT_EQ(Value(geteuid()), path_);
	EXPECT_EQ(log_.Lines().size(), 0U);
}

TEST_F(Wgetrc, AbsentOneMeansNoSettingsAndNoWarning) {
	unlink(path_.c_str());
	EXPECT_EQ(Value(geteuid()), "none");
	EXPECT_EQ(log_.Lines().size(), 0U);
}

TEST_F(Wgetrc, UnsafeOneIsNotObeyedAndTold) {
	const auto refused = [&](uid_t owner) {
		const SyslogCapture log;
		return Value(owner) == "none" && log.Count(LOG_WARNING, {path_}) == 1;
	};
	EXPECT_TRUE(refused(geteuid() + 1));
	chmod(path_.c_str(), 0664);
	EXPECT_TRUE(refused(geteuid()));
	chmod(path_.c_str(), 0646);
	EXPECT_TRUE(refused(geteuid()));
	WriteFile(directory_ / "real", "");
	unlink(path_.c_str());
	ASSERT_EQ(symlink((directory_ / "real").c_str(), path_.c_str()), 0);
	EXPECT_TRUE(refused(geteuid()));
	unlink(path_.c_str());
	ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
	EXPECT_TRUE(refused(geteuid()));
}

} // namespace
