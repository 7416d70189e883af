// Publishers of diff packages that are killed, and what the next one makes of it.
#include "diff_fixture.h"

namespace tarn::test {

namespace {

class KilledDiffPublishing : public DiffPublisherTest {
protected:
	KilledDiffPublishing() {
		Sql("base", "CREATE TABLE t(a); INSERT INTO t VALUES(1), (2)");
		options_.keep_diffs = 1;
		Publish();
		Change("one");
		Publish();
		Change("two");
		RememberRepository();
		Publish();
		expected_ = FilesBelow(options_.repository);
	}
	void Change(const std::string& text) {
		for (const char* name : {"x", "y", "z"}) {
			Put(name, Noise(400, 3) + text);
		}
		Sql("base", "INSERT INTO t VALUES('" + text + "')");
	}
	/** Every package that the document names is there as it should be, and devices come to the newest version. */
	void ExpectServable() {
		const std::string newest = Document()["db_list"]["db"]["data_version"].asString();
		ASSERT_THAT(newest, ::testing::AnyOf("2", "3"));
		EXPECT_EQ(OfferedDiffs(), (std::vector<int>{std::stoi(newest)}));
		const int version = std::stoi(newest);
		EXPECT_EQ(Followed(version - 1, version).at("x"), Followed(version, version).at("x"));
		EXPECT_EQ(
		    Document()["db_list"]["db"]["diff_files"][newest]["file_size"].asUInt64(), fs::file_size(Diff(version)));
	}
	/** Publishing again comes to the repository of a publisher that nobody disturbed. */
	void ExpectRepaired() {
		if (Document()["db_list"]["db"]["data_version"].asString() == "2") {
			Publish();
		} else {
			options_.data_version = 3;
			EXPECT_THAT(PublishError(), HasSubstr("published already"));
			options_.data_version.reset();
		}
		auto files = FilesBelow(options_.repository);
		// What a publisher killed after its document has left is taken away by the next that has something to do.
		files.erase("packages/db/db_d2.tarn");
		EXPECT_EQ(files, expected_);
	}
	void ExpectWholeState() {
		ExpectServable();
		ExpectRepaired();
	}

	FixedTime time_{"1700000000"};
	std::map<std::string, std::string> expected_;
};

TEST_F(KilledDiffPublishing, LeavesAWholeStateAtEveryStep) {
	const int runs = KilledAtEveryStep([this] { Publish(); }, [this] { ExpectWholeState(); });
	EXPECT_GT(runs, 8) << "fewer moments than there are steps";
}

TEST_F(KilledDiffPublishing, LeavesAWholeStateAtAnyMoment) {
	KilledAtMoments(
	    8, 8000, [this] { Publish(); }, [this] { ExpectWholeState(); });
}

} // namespace

} // namespace tarn::test
