#include "base/unique_fd.h"
#include "platform/tarnsdk/hook_runner.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <tarncore/tarncore.h>
#include <tarnsdk/plugin.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <sstream>

namespace {

using std::chrono::milliseconds;
using tarn::UniqueFd;
using tarn::sdk::RunHooks;
using tarn::test::ReadFile;
using tarn::test::SyslogCapture;
using tarn::test::TemporaryDirectory;
using tarn::test::WriteFile;
using testing::HasSubstr;
using testing::Not;

constexpr milliseconds kLong(60000);
constexpr milliseconds kShort(1500);

std::vector<std::string> Records(const std::string& content) {
	std::vector<std::string> records;
	std::istringstream stream(content);
	for (std::string record; std::getline(stream, record, '\0');) {
		records.push_back(record);
	}
	return records;
}

/** Whether a process ends within a generous time. */
bool Ends(pid_t process) {
	const UniqueFd watched(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
	pollfd end = {watched.Get(), POLLIN, 0};
	return !watched || poll(&end, 1, 20000) == 1;
}

class Hooks : public testing::Test {
protected:
	void SetUp() override {
		for (const std::string& root : {shipped_, own_}) {
			std::filesystem::create_directories(root + "/module/some/event");
		}
	}

	/** Writes a hook that may use the test's directory as "$out". */
	std::string Hook(const std::string& root, const std::string& name, const std::string& script) const {
		std::string path = root + "/module/some/event/" + name;
		WriteFile(path, "#!/bin/sh\nout='" + directory_.Path().string() + "'\n" + script + "\n");
		chmod(path.c_str(), 0755);
		return path;
	}

	bool Run(const std::string& action = "pre", milliseconds limit = kLong) const {
		return RunHooks({"module", "some/event", action, arguments_}, {{shipped_, own_}, owner_, limit});
	}

	std::string Output(const std::string& name) const { return ReadFile(directory_ / name); }
	bool HasOutput(const std::string& name) const { return std::filesystem::exists(directory_.Path() / name); }

	SyslogCapture log_;
	TemporaryDirectory directory_;
	std::string shipped_ = directory_ / "lib";
	std::string own_ = directory_ / "etc";
	uid_t owner_ = geteuid();
	tarn::sdk::HookArguments arguments_ = {{"DATABASE", "geo"}, {"DELIMITER", ":"}};
};

TEST_F(Hooks, RunInLexicalOrderOverBothDirectories) {
	Hook(own_, "20-own", "echo 20 >> $out/order");
	Hook(shipped_, "30-shipped", "echo 30 >> $out/order");
	Hook(shipped_, "10-shipped", "echo 10 >> $out/order");
	EXPECT_TRUE(Run());
	EXPECT_EQ(Output("order"), "10\n20\n30\n");
}

TEST_F(Hooks, AdministratorsHookReplacesTheShippedOneOfItsName) {
	Hook(shipped_, "10-name", "echo shipped >> $out/order");
	Hook(own_, "10-name", "echo own >> $out/order");
	EXPECT_TRUE(Run());
	EXPECT_EQ(Output("order"), "own\n");
}

TEST_F(Hooks, AdministratorTurnsAShippedHookOffWithAFileThatIsNotExecutable) {
	Hook(shipped_, "10-name", "echo shipped >> $out/order");
	chmod(Hook(own_, "10-name", "").c_str(), 0644);
	EXPECT_TRUE(Run());
	EXPECT_FALSE(HasOutput("order"));
}

TEST_F(Hooks, NoHooksAndNoDirectoriesAreASuccess) {
	EXPECT_TRUE(Run());
	std::filesystem::remove_all(own_);
	std::filesystem::remove_all(shipped_ + "/module");
	EXPECT_TRUE(Run());
	EXPECT_EQ(log_.Lines().size(), 0U);
}

TEST_F(Hooks, LinksLeftoversAndDirectoriesAreNoHooks) {
	const std::string real = Hook(shipped_, "real~", "touch $out/ran");
	Hook(shipped_, ".hidden", "touch $out/ran");
	Hook(shipped_, "hook.dpkg-new", "touch $out/ran");
	ASSERT_EQ(symlink(real.c_str(), (own_ + "/module/some/event/link").c_str()), 0);
	ASSERT_EQ(mkdir((own_ + "/module/some/event/directory").c_str(), 0755), 0);
	EXPECT_TRUE(Run());
	EXPECT_FALSE(HasOutput("ran"));
	EXPECT_EQ(log_.Count(LOG_WARNING, {"/link'"}), 1U);
}

TEST_F(Hooks, FailingHookIsToldAndDoesNotStopTheOthers) {
	const std::string failing = Hook(shipped_, "10", "exit 3");
	const std::string killed = Hook(shipped_, "20", "kill -SEGV $$");
	const std::string broken = Hook(shipped_, "30", "");
	WriteFile(broken, "#!/nonexistent/interpreter\n");
	Hook(shipped_, "40", "touch $out/ran");
	EXPECT_FALSE(Run());
	EXPECT_TRUE(HasOutput("ran"));
	EXPECT_EQ(log_.Count(LOG_ERR, {failing, "status 3"}), 1U);
	EXPECT_EQ(log_.Count(LOG_ERR, {killed, "signal 11"}), 1U);
	EXPECT_EQ(log_.Count(LOG_ERR, {broken, "cannot be started"}), 1U);
	EXPECT_EQ(log_.Lines().size(), 3U);
}

TEST_F(Hooks, HookThatOthersMayWriteIsRefusedAndTheOthersRun) {
	const std::string unsafe = Hook(shipped_, "10", "touch $out/unsafe");
	chmod(unsafe.c_str(), 0775);
	Hook(shipped_, "20", "touch $out/ran");
	EXPECT_FALSE(Run());
	EXPECT_FALSE(HasOutput("unsafe"));
	EXPECT_TRUE(HasOutput("ran"));
	EXPECT_EQ(log_.Count(LOG_ERR, {unsafe, "refused"}), 1U);
}

TEST_F(Hooks, RefusedHookOfTheAdministratorDoesNotLetTheShippedOneRun) {
	Hook(shipped_, "10", "touch $out/ran");
	chmod(Hook(own_, "10", "touch $out/unsafe").c_str(), 0777);
	EXPECT_FALSE(Run());
	EXPECT_FALSE(HasOutput("ran"));
	EXPECT_FALSE(HasOutput("unsafe"));
}

TEST_F(Hooks, AnyDirectoryOnTheWayThatOthersMayWriteIsRefused) {
	Hook(own_, "10", "touch $out/unsafe");
	Hook(shipped_, "20", "touch $out/ran");
	for (const char* below : {"", "/module", "/module/some", "/module/some/event"}) {
		std::filesystem::remove(directory_.Path() / "ran");
		chmod((own_ + below).c_str(), 0777);
		const SyslogCapture log;
		EXPECT_FALSE(Run()) << below;
		EXPECT_TRUE(HasOutput("ran")) << below;
		EXPECT_EQ(log.Count(LOG_ERR, {own_ + below + "'", "refused"}), 1U) << below;
		chmod((own_ + below).c_str(), 0755);
	}
	EXPECT_FALSE(HasOutput("unsafe"));
}

TEST_F(Hooks, LinkedDirectoryBelowTheRootIsRefused) {
	Hook(own_, "10", "touch $out/unsafe");
	std::filesystem::rename(own_ + "/module", directory_ / "elsewhere");
	std::filesystem::create_directory_symlink(directory_ / "elsewhere", own_ + "/module");
	EXPECT_FALSE(Run());
	EXPECT_FALSE(HasOutput("unsafe"));
}

TEST_F(Hooks, ForeignOwnersAreRefused) {
	Hook(own_, "10", "touch $out/unsafe");
	owner_ = geteuid() + 1;
	EXPECT_FALSE(Run());
	EXPECT_FALSE(HasOutput("unsafe"));
}

TEST_F(Hooks, GetActionAndArgumentsInABuiltEnvironment) {
	setenv("TARN_TEST_MARKER", "leaks", 1);
	Hook(own_, "10",
	    "cat /proc/$$/environ > $out/environ; echo \"$# $1\" > $out/arguments; readlink /proc/$$/cwd > $out/cwd");
	EXPECT_TRUE(Run("post"));
	unsetenv("TARN_TEST_MARKER");
	EXPECT_EQ(Output("arguments"), "1 post\n");
	EXPECT_EQ(Output("cwd"), "/\n");
	EXPECT_THAT(Records(Output("environ")),
	    testing::UnorderedElementsAre("PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", "HOME=/nonexistent",
	        "TARN_HOOK_ACTION=post", "TARN_HOOK_MODULE=module", "TARN_HOOK_PATH=some/event",
	        "TARN_HOOK_ARGS_FILE=/proc/self/fd/0", "TARN_HOOK_OMITTED=", "DATABASE=geo", "DELIMITER=:"));
}

TEST_F(Hooks, EachFindsAllArgumentsOnStandardInputAndInTheNamedFile) {
	arguments_["EMPTY"] = "";
	arguments_["LINES"] = "a\nb=c";
	for (const char* name : {"1", "2"}) {
		Hook(own_, name, "cat > $out/input$(basename $0); cat \"$TARN_HOOK_ARGS_FILE\" > $out/file$(basename $0)");
	}
	EXPECT_TRUE(Run());
	for (const char* name : {"input1", "input2", "file1", "file2"}) {
		EXPECT_THAT(
		    Records(Output(name)), testing::ElementsAre("DATABASE=geo", "DELIMITER=:", "EMPTY=", "LINES=a\nb=c"))
		    << name;
	}
}

TEST_F(Hooks, ListOfFiftyThousandFilesArrivesWhole) {
	std::string files;
	for (int i = 0; i < 50000; ++i) {
		files += "/volume1/@database/autoupdate/geo/" + std::string(30, 'f') + std::to_string(i) + ":";
	}
	ASSERT_GT(files.size(), 3U * 1024 * 1024);
	arguments_["CHANGED_FILES"] = files;
	Hook(own_, "10", "cat > $out/input; echo \"$TARN_HOOK_OMITTED:${CHANGED_FILES-unset}:$DATABASE\" > $out/variables");
	EXPECT_TRUE(Run());
	EXPECT_THAT(
	    Records(Output("input")), testing::ElementsAre("CHANGED_FILES=" + files, "DATABASE=geo", "DELIMITER=:"));
	EXPECT_EQ(Output("variables"), "CHANGED_FILES:unset:geo\n");
}

TEST_F(Hooks, LongestValueThatFitsIsAVariableAndOneByteMoreIsNot) {
	const std::size_t room = std::size_t{128} * 1024 - std::string("KEY=").size() - 1;
	Hook(own_, "10", "echo \"${#KEY} $TARN_HOOK_OMITTED\" > $out/length");
	arguments_["KEY"] = std::string(room, 'x');
	EXPECT_TRUE(Run());
	EXPECT_EQ(Output("length"), std::to_string(room) + " \n");
	arguments_["KEY"] += 'x';
	EXPECT_TRUE(Run());
	EXPECT_EQ(Output("length"), "0 KEY\n");
}

TEST_F(Hooks, ManyLongValuesDoNotKeepAHookFromStarting) {
	for (int i = 0; i < 40; ++i) {
		arguments_["KEY" + std::to_string(i)] = std::string(120000, 'x');
	}
	Hook(own_, "10", "cat > $out/input; set -- $TARN_HOOK_OMITTED; test $# -gt 0");
	EXPECT_TRUE(Run());
	EXPECT_EQ(Records(Output("input")).size(), 42U);
}

TEST_F(Hooks, CannotAlterTheArgumentsOfLaterHooks) {
	Hook(own_, "10", "echo hostile > /proc/self/fd/0; true");
	Hook(own_, "20", "cat > $out/input");
	EXPECT_TRUE(Run());
	EXPECT_THAT(Records(Output("input")), testing::ElementsAre("DATABASE=geo", "DELIMITER=:"));
}

TEST_F(Hooks, GetNoDescriptorAndNoStreamOfTheCaller) {
	const UniqueFd leaking(open("/dev/zero", O_RDONLY)); // without close-on-exec, on purpose
	Hook(own_, "10",
	    "(ls /proc/$$/fd) > $out/raw; sed '/^10$/d' $out/raw > $out/numbers\n"
	    "(readlink /proc/$$/fd/1 /proc/$$/fd/2 /proc/$$/fd/10) > $out/streams; true");
	EXPECT_TRUE(Run());
	// 10 is where the shell holds its own script.
	EXPECT_EQ(Output("numbers"), "0\n1\n2\n");
	EXPECT_THAT(Output("streams"), testing::StartsWith("/dev/null\n/dev/null\n"));
	EXPECT_THAT(Output("streams"), Not(HasSubstr("zero")));
}

TEST_F(Hooks, HangingOneIsKilledWithItsChildrenAndReaped) {
	const std::string hanging = Hook(own_, "10", "sleep 600 & echo $! > $out/child; echo $$ > $out/leader; wait");
	Hook(own_, "20", "touch $out/ran");
	EXPECT_FALSE(Run("pre", kShort));
	EXPECT_TRUE(Ends(std::stoi(Output("child"))));
	EXPECT_TRUE(HasOutput("ran"));
	EXPECT_EQ(log_.Count(LOG_ERR, {hanging, "1500 ms"}), 1U);
	EXPECT_EQ(kill(std::stoi(Output("leader")), 0), -1);
	EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
	EXPECT_EQ(errno, ECHILD);
}

TEST_F(Hooks, HaveTheTimeThatTheDocumentsTell) {
	EXPECT_EQ(tarn::sdk::HookSettings().time_limit, std::chrono::seconds(60));
	EXPECT_EQ(TARN_HOOK_CHECK_TIMEOUT_SECONDS, 600);
}

TEST_F(Hooks, HangingOneThatIgnoresSignalsIsKilledToo) {
	Hook(own_, "10", "trap '' TERM INT HUP; echo $$ > $out/leader; while :; do sleep 600; done");
	EXPECT_FALSE(Run("pre", kShort));
	EXPECT_EQ(kill(std::stoi(Output("leader")), 0), -1);
	EXPECT_EQ(errno, ESRCH);
}

TEST_F(Hooks, DaemonInASessionOfItsOwnLivesOnWithoutOurDescriptors) {
	const UniqueFd lock(open((directory_ / "lock").c_str(), O_RDWR | O_CREAT, 0600)); // leaks unless it is closed
	const UniqueFd inheritable(dup(lock.Get()));
	ASSERT_EQ(mkfifo((directory_ / "question").c_str(), 0600), 0);
	ASSERT_EQ(mkfifo((directory_ / "answer").c_str(), 0600), 0);
	Hook(own_, "10", R"(setsid sh -c "read w < $out/question; (readlink /proc/\$\$/fd/*) > $out/answer" &)");
	EXPECT_TRUE(Run());
	WriteFile(directory_ / "question", "go\n");
	const std::string held = Output("answer");
	EXPECT_THAT(held, HasSubstr("/dev/null"));
	EXPECT_THAT(held, Not(HasSubstr("lock")));
}

class PluginInterface : public testing::Test {
protected:
	void SetUp() override { ASSERT_EQ(TLIBPluginSDKInit("tarn_unit_test", "no/such/event", &handle_), 0); }
	void TearDown() override { TLIBPluginExit(handle_); }

	TLIBPluginContext* handle_ = nullptr;
};

TEST_F(PluginInterface, SetsArgumentsAndRunsActionsWithoutHooks) {
	ASSERT_NE(handle_, nullptr);
	EXPECT_EQ(TLIBPluginSetArg(handle_, "DATABASE", "geo"), 0);
	EXPECT_EQ(TLIBPluginSetArg(handle_, "DATABASE", "other"), 0);
	EXPECT_EQ(TLIBPluginAction(TLIB_PLUGIN_ACTION_PRE, handle_), 0);
	EXPECT_EQ(TLIBPluginAction(TLIB_PLUGIN_ACTION_POST, handle_), 0);
	EXPECT_EQ(TLIBPluginAction(static_cast<TLIBPluginActionType>(6), handle_), -1);
}

TEST_F(PluginInterface, RefusesKeysThatCannotBeOrMustNotBeSet) {
	for (const char* key :
	    {"", "1A", "A-B", "A=B", "A B", "PATH", "HOME", "LC_ALL", "LD_PRELOAD", "TARN_HOOK_ACTION"}) {
		TLIBCErrSet(0);
		EXPECT_EQ(TLIBPluginSetArg(handle_, key, "x"), -1) << key;
		EXPECT_EQ(TLIBCErrGet(), EINVAL) << key;
	}
	EXPECT_EQ(TLIBPluginSetArg(handle_, nullptr, "x"), -1);
	EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY", nullptr), -1);
	EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY_1", "x"), 0);
}

TEST_F(PluginInterface, ClosingTwiceIsHarmlessEvenAfterAnotherWasOpened) {
	EXPECT_EQ(TLIBPluginExit(handle_), 0);
	TLIBPluginContext* other = nullptr;
	ASSERT_EQ(TLIBPluginSDKInit("tarn_unit_test", "no/such/event", &other), 0);
	EXPECT_NE(other, handle_);
	EXPECT_EQ(TLIBPluginExit(handle_), 0);
	EXPECT_EQ(TLIBPluginSetArg(other, "KEY", "x"), 0);
	EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY", "x"), -1);
	EXPECT_EQ(TLIBPluginAction(TLIB_PLUGIN_ACTION_PRE, handle_), -1);
	EXPECT_EQ(TLIBPluginExit(other), 0);
	EXPECT_EQ(TLIBPluginExit(nullptr), 0);
}

TEST_F(PluginInterface, RefusesNamesThatLeadElsewhere) {
	const auto refused = [this](const char* module, const char* path) {
		TLIBPluginContext* context = handle_;
		return TLIBPluginSDKInit(module, path, &context) == -1 && context == nullptr;
	};
	for (const char* module : {"", ".", "..", "a/b", "/a"}) {
		EXPECT_TRUE(refused(module, "event")) << module;
	}
	for (const char* path : {"", "/event", "event/", "a//b", "../a", "a/../b", "a/.."}) {
		EXPECT_TRUE(refused("module", path)) << path;
	}
	EXPECT_TRUE(refused(nullptr, "event"));
	EXPECT_TRUE(refused("module", nullptr));
	EXPECT_EQ(TLIBPluginSDKInit("module", "event", nullptr), -1);
}

} // namespace
