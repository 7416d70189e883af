#include "dataupdate/interruption.h"
#include "dataupdate/strategy.h"
#include "diff_strategy_test.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

/** A package that changes so many files of one directory that readers must not wait for each. */
class ManyFilesDiffStrategyTest : public DiffStrategyTest {
protected:
	ManyFilesDiffStrategyTest() {
		std::string description = R"({"f": {"operation": "delete"})";
		for (const std::string& name : Names()) {
			WriteFile(Installed(name), "old");
			description += ", \"" + name + R"(": {"operation": "create", "input_file": "in"})";
		}
		WriteFile(Installed("many/kept"), "kept");
		Offer(description + "}", {{"in", "new"}});
		std::this_thread::sleep_for(std::chrono::milliseconds(40)); // A later change must get another time.
	}

	static std::vector<std::string> Names() {
		std::vector<std::string> names;
		names.reserve(300);
		for (int number = 0; number < 300; ++number) {
			names.push_back("many/" + std::to_string(number));
		}
		return names;
	}
	/** Changes files as told, and counts what is done while readers wait. */
	std::map<std::string, int> CallsUnderLock(DiffStrategy& strategy) {
		std::map<std::string, int> calls;
		bool is_locked = false;
		system_.on_call = [&](const std::string& call) {
			is_locked = is_locked || call == "flock";
			calls[call] += is_locked ? 1 : 0;
		};
		strategy.ApplyUpdate();
		system_.on_call = nullptr;
		return calls;
	}
	void ExpectChanged() const {
		for (const std::string& name : Names()) {
			EXPECT_EQ(ReadFile(Installed(name)), "new");
		}
		EXPECT_EQ(ReadFile(Installed("many/kept")), "kept");
		EXPECT_FALSE(fs::exists(Installed("f")));
	}
};

TEST_F(ManyFilesDiffStrategyTest, HoldsReadersOffForTwoRenames) {
	DiffStrategy& strategy = Prepared();
	EXPECT_FALSE(fs::exists(Temp("staged"))) << "the hooks come first, which may change what is installed";
	const std::map<std::string, int> calls = CallsUnderLock(strategy);
	EXPECT_EQ(calls.at("renameat2"), 2); // The directory and the file at the top.
	EXPECT_EQ(calls.count("linkat") == 0 ? 0 : calls.at("linkat"), 0);
	EXPECT_EQ(strategy.GetModifiedFiles().size(), 301U);
	ExpectChanged();
	strategy_.reset();
	EXPECT_FALSE(fs::exists(Area()));
}

TEST_F(ManyFilesDiffStrategyTest, RenamesEachFileWhereLinksAreRefused) {
	DiffStrategy& strategy = Prepared();
	system_.Fail("linkat", EPERM, 1000);
	EXPECT_EQ(CallsUnderLock(strategy).at("renameat2"), 301);
	ExpectChanged();
}

TEST_F(ManyFilesDiffStrategyTest, ChangesNothingWhenItIsEndedBeforeReadersWait) {
	DiffStrategy& strategy = Prepared();
	system_.on_call = [](const std::string& call) {
		if (call == "linkat") {
			RequestInterruption();
		}
	};
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }), "Fail to diff update: Interrupted");
	system_.on_call = nullptr;
	ForgetInterruption();
	EXPECT_FALSE(fs::exists(kMark));
	EXPECT_FALSE(fs::exists(kUsingLock));
	EXPECT_EQ(ReadFile(Installed("many/0")), "old");
	EXPECT_EQ(ReadFile(Installed("f")), "5");
}

} // namespace
} // namespace tarn::dataupdate
