#include "dataupdate/hook.h"
#include "fake_platform.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <syslog.h>

#include <optional>
#include <string>

namespace tarn::dataupdate {
namespace {

using testing::SizeIs;

class UpdateHookTest : public testing::Test {
protected:
	test::FakePlatform platform_;
	test::SyslogCapture log_;
};

const Line kNotInit{LOG_ERR, "hook.cpp", "Not init or init failed"};
const Line kInitFailed{LOG_ERR, "hook.cpp",
    "Failed to init hook in module [database_autoupdate] and path [database_autoupdate/version_change]"};

TEST_F(UpdateHookTest, TellsTheHooksWhatChangesBeforeAndAfter) {
	{
		UpdateHook hook("geo", {"b/x", "a/y"});
		EXPECT_TRUE(hook.ExecPre());
		EXPECT_TRUE(hook.ExecPost());
	}
	EXPECT_THAT(platform_.events,
	    ElementsAre("hook init database_autoupdate database_autoupdate/version_change", "hook set DATABASE=geo",
	        "hook set CHANGED_FILES=a/y:b/x", "hook set DELIMITER=:", "hook action 4", "hook action 5", "hook exit"));
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(UpdateHookTest, PassesAnEmptyListForNoFiles) {
	const UpdateHook hook("geo", {});
	EXPECT_EQ(platform_.CountEvents("hook set CHANGED_FILES="), 1U);
	EXPECT_EQ(platform_.events.at(2), "hook set CHANGED_FILES=");
}

TEST_F(UpdateHookTest, JoinsPathsWithoutEscaping) {
	EXPECT_EQ(UpdateHook::JoinFiles({}), "");
	EXPECT_EQ(UpdateHook::JoinFiles({"a"}), "a");
	EXPECT_EQ(UpdateHook::JoinFiles({"b", "a:c"}), "a:c:b");
}

TEST_F(UpdateHookTest, LogsOnceForEveryCallWithoutAContext) {
	platform_.plugin_init_result = -1;
	{
		UpdateHook hook("geo", {"a"});
		EXPECT_FALSE(hook.ExecPre());
		EXPECT_FALSE(hook.ExecPost());
	}
	EXPECT_THAT(test::Lines(log_), ElementsAre(kInitFailed, kNotInit, kNotInit, kNotInit, kNotInit, kNotInit));
	EXPECT_THAT(platform_.events, SizeIs(1)); // The failed init; nothing is closed.
}

TEST_F(UpdateHookTest, LogsAnArgumentThatCannotBeSet) {
	platform_.plugin_set_result = -1;
	UpdateHook hook("geo", {"a"});
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Line{LOG_ERR, "hook.cpp", "Failed to set plugin argument key=DATABASE value=geo"},
	        Line{LOG_ERR, "hook.cpp", "Failed to set plugin argument key=CHANGED_FILES value=a"},
	        Line{LOG_ERR, "hook.cpp", "Failed to set plugin argument key=DELIMITER value=:"}));
	EXPECT_FALSE(hook.SetEnv("K", "v"));
	platform_.plugin_set_result = 0;
	EXPECT_TRUE(hook.SetEnv("K", "v"));
}

TEST_F(UpdateHookTest, LogsAnActionThatFailsByItsNumber) {
	platform_.plugin_action_result = 3;
	UpdateHook hook("geo", {});
	EXPECT_FALSE(hook.ExecPre());
	EXPECT_FALSE(hook.ExecPost());
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_ERR, "hook.cpp", "Failed to exec hook at action [4]"},
	                                   Line{LOG_ERR, "hook.cpp", "Failed to exec hook at action [5]"}));
}

TEST_F(UpdateHookTest, KeepsTheContextsValueWhenItIsCleared) {
	{
		UpdateHook hook("geo", {});
		hook.Clear();
		EXPECT_TRUE(hook.ExecPre());
	}
	EXPECT_EQ(platform_.CountEvents("hook exit"), 2U);
}

TEST_F(UpdateHookTest, SharesTheContextWithItsCopies) {
	{
		const UpdateHook hook("geo", {});
		UpdateHook copy(hook);
		EXPECT_EQ(platform_.CountEvents("hook exit"), 0U); // Nothing was there to close.
		EXPECT_TRUE(copy.ExecPre());
	}
	EXPECT_EQ(platform_.CountEvents("hook exit"), 2U);
}

TEST_F(UpdateHookTest, ClosesItsContextBeforeItTakesAnother) {
	{
		UpdateHook hook("geo", {});
		const UpdateHook other("poi", {});
		hook = other;
		EXPECT_EQ(platform_.CountEvents("hook exit"), 1U);
		const UpdateHook& same = hook;
		hook = same;
		EXPECT_EQ(platform_.CountEvents("hook exit"), 1U);
	}
	EXPECT_EQ(platform_.CountEvents("hook exit"), 3U);
}

TEST_F(UpdateHookTest, ClearsThroughTheVirtualOperationWhenAssigned) {
	class Counting : public UpdateHook {
	public:
		using UpdateHook::UpdateHook;
		void Clear() override { ++cleared; }
		int cleared = 0;
	};
	Counting hook("geo", {});
	const UpdateHook other("poi", {});
	static_cast<UpdateHook&>(hook) = other;
	EXPECT_EQ(hook.cleared, 1);
}

} // namespace
} // namespace tarn::dataupdate
