#include "platform/tarnsdk/hook_runner.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>

namespace {

using std::chrono::milliseconds;
using tarn::sdk::CheckByHooks;
using tarn::sdk::Verdict;
using tarn::test::ReadFile;
using tarn::test::WriteFile;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class CheckingHooks : public testing::Test {
protected:
	void SetUp() override { std::filesystem::create_directories(root_ + "/module/check"); }

	std::string Hook(const std::string& name, const std::string& script) const {
		std::string path = root_ + "/module/check/" + name;
		WriteFile(path, "#!/bin/sh\nout='" + directory_.Path().string() + "'\n" + script + "\n");
		chmod(path.c_str(), 0755);
		return path;
	}

	Verdict Check(
	    milliseconds limit = std::chrono::seconds(60),
	    const std::function<bool()>& may_go_on = [] { return true; }) const {
		return CheckByHooks(
		    {"module", "check", "check", {{"DATABASE", "geo"}}}, {{root_}, geteuid(), limit}, may_go_on);
	}

	bool HasOutput(const std::string& name) const { return std::filesystem::exists(directory_.Path() / name); }
	bool IsGone(const std::string& name) const {
		return kill(std::stoi(ReadFile(directory_ / name)), 0) == -1 && errno == ESRCH;
	}

	tarn::test::SyslogCapture log_;
	tarn::test::TemporaryDirectory directory_;
	std::string root_ = directory_ / "hooks";
};

TEST_F(CheckingHooks, AcceptWhenAllExitWithZeroAndWhenThereAreNone) {
	EXPECT_EQ(Check().verdict, TLIB_PLUGIN_ACCEPTED);
	Hook("10", "echo $1 $DATABASE $TARN_HOOK_ACTION > $out/told; cat > $out/input; echo fine");
	Hook("20", "touch $out/second");
	const Verdict verdict = Check();
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_ACCEPTED);
	EXPECT_EQ(verdict.reason, "");
	EXPECT_EQ(ReadFile(directory_ / "told"), "check geo check\n");
	EXPECT_EQ(ReadFile(directory_ / "input"), std::string("DATABASE=geo\0", 13));
	EXPECT_TRUE(HasOutput("second"));
	EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(CheckingHooks, RefuseWithTheFirstLineOfTheErrorStream) {
	const std::string hook = Hook("10", "echo output; echo; printf '  line \\033[1mone\\n' >&2; echo two >&2; exit 7");
	Hook("20", "touch $out/second");
	const Verdict verdict = Check();
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_REFUSED);
	EXPECT_EQ(verdict.reason, "'" + hook + "': line ?[1mone");
	EXPECT_FALSE(HasOutput("second"));
	EXPECT_EQ(log_.Count(LOG_ERR, {hook, "refuses", "line ?[1mone"}), 1U);
}

TEST_F(CheckingHooks, RefuseWithTheirOutputOrTheirStatusWhenThatIsAll) {
	Hook("10", "echo; echo only output; exit 1");
	EXPECT_THAT(Check().reason, EndsWith("': only output"));
	Hook("10", "exit 9");
	EXPECT_THAT(Check().reason, EndsWith("': it exited with status 9"));
}

TEST_F(CheckingHooks, MayWriteAnyAmountOfWhichLittleIsKept) {
	Hook("10", "head -c 5000000 /dev/zero | tr '\\0' x; head -c 5000000 /dev/zero | tr '\\0' y >&2; exit 1");
	const Verdict verdict = Check();
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_REFUSED);
	EXPECT_THAT(verdict.reason, EndsWith("': " + std::string(300, 'y') + "..."));
}

TEST_F(CheckingHooks, GiveNoVerdictWhenTheyAreKilledOrCannotRun) {
	Hook("10", "kill -SEGV $$");
	Verdict verdict = Check();
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_NO_VERDICT);
	EXPECT_THAT(verdict.reason, EndsWith("': it was killed by signal 11"));
	WriteFile(Hook("10", ""), "#!/nonexistent/interpreter\n");
	verdict = Check();
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_NO_VERDICT);
	EXPECT_THAT(verdict.reason, HasSubstr("': it cannot be started: "));
}

TEST_F(CheckingHooks, GiveNoVerdictWhenOneIsNotTrusted) {
	Hook("10", "touch $out/first");
	chmod(Hook("20", "exit 0").c_str(), 0777);
	const Verdict verdict = Check();
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_NO_VERDICT);
	EXPECT_THAT(verdict.reason, HasSubstr("module/check"));
	EXPECT_FALSE(HasOutput("first"));
}

TEST_F(CheckingHooks, AreKilledWithTheirGroupAfterTheLimit) {
	Hook("10", "trap '' TERM; sleep 600 & echo $! > $out/child; echo $$ > $out/leader; wait");
	const Verdict verdict = Check(milliseconds(1500));
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_NO_VERDICT);
	EXPECT_THAT(verdict.reason, EndsWith("': it was killed after 1500 ms"));
	EXPECT_TRUE(IsGone("leader"));
}

TEST_F(CheckingHooks, AreKilledWhenTheCheckMayNotGoOn) {
	Hook("10", "echo $$ > $out/new; mv $out/new $out/leader; exec sleep 600");
	const Verdict verdict = Check(std::chrono::seconds(60), [this] { return !HasOutput("leader"); });
	EXPECT_EQ(verdict.verdict, TLIB_PLUGIN_NO_VERDICT);
	EXPECT_THAT(verdict.reason, EndsWith("': it was killed, as the check was ended"));
	EXPECT_TRUE(IsGone("leader"));
}

TEST_F(CheckingHooks, AreNotWaitedForWhenTheyLeaveADaemonWithTheirStreams) {
	Hook("10", "setsid sleep 30 & echo $! > $out/daemon; exit 3");
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ(Check().verdict, TLIB_PLUGIN_REFUSED);
	EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
	kill(std::stoi(ReadFile(directory_ / "daemon")), SIGKILL);
}

TEST(CheckInterface, KnowsNoHooksWhereThereAreNone) {
	EXPECT_EQ(TLIBPluginExists("tarn_unit_test", "no/such/event"), 0);
	EXPECT_EQ(TLIBPluginExists("../etc", "event"), 0);
	EXPECT_EQ(TLIBPluginExists(nullptr, "event"), 0);
	TLIBPluginContext* context = nullptr;
	ASSERT_EQ(TLIBPluginSDKInit("tarn_unit_test", "no/such/event", &context), 0);
	std::array<char, 8> reason = {'x'};
	EXPECT_EQ(TLIBPluginCheck(context, nullptr, reason.data(), reason.size()), TLIB_PLUGIN_ACCEPTED);
	EXPECT_STREQ(reason.data(), "");
	EXPECT_EQ(TLIBPluginCheck(context, nullptr, reason.data(), 0), -1);
	TLIBPluginExit(context);
	EXPECT_EQ(TLIBPluginCheck(context, nullptr, reason.data(), reason.size()), -1);
}

} // namespace
