// Databases that are changed by SQL scripts, whose bytes differ between devices from then on.
#include "diff_fixture.h"
#include "publisher/sqlite/sqlite_content.h"

namespace tarn::test {

namespace {

class ScriptChain : public DiffPublisherTest {
protected:
	ScriptChain() {
		Sql("db", "CREATE TABLE t(i INTEGER PRIMARY KEY, a TEXT, b); CREATE TABLE u(x); CREATE INDEX n ON t(a);"
		          "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 500)"
		          "INSERT INTO t SELECT i, 'row ' || (i * 7919 % 1000), i FROM c; INSERT INTO u VALUES(1), (2);");
	}

	/** Changes rows all over the file, so that a script is smaller, and leaves pages empty, which no script does. */
	void ChangeRows(int seed) {
		Sql("db", "UPDATE t SET a = 'changed ' || " + std::to_string(seed) +
		              " WHERE i % 50 = " + std::to_string(seed % 50) +
		              "; INSERT INTO u SELECT zeroblob(2000) FROM t LIMIT 9; DELETE FROM u WHERE typeof(x) = 'blob'");
	}
	/** Publishes changes that scripts carry best, until the chain has forgotten what no script could carry. */
	int PublishUntilScripted(const std::string& name, int next) {
		for (const int last = next + 15; next < last; ++next) {
			Sql(name,
			    "UPDATE t SET a = 'version " + std::to_string(next) + "' WHERE i % 9 = " + std::to_string(next % 9));
			Publish();
			if (KindsIn(next) == Kinds{{name, "sql"}}) {
				return next;
			}
		}
		ADD_FAILURE() << "no version by script";
		return next;
	}
	/** A device that came from one version to another by diff packages has the published content. */
	void ExpectContent(int from, int to, const std::string& name = "db") const {
		DeviceTree device(PublicKey());
		device.Install(Package(from));
		for (int version = from + 1; version <= to; ++version) {
			device.Update({Diff(version)});
		}
		EXPECT_EQ(publisher::FindContentDifference(device.Path(name), TreePath(name)), std::nullopt) << from;
	}
};

TEST_F(ScriptChain, GivesEveryDeviceThePublishedContent) {
	Publish();
	for (int version = 2; version <= 4; ++version) {
		ChangeRows(version);
		EXPECT_EQ(Publish().diff->scripted, 1U);
		EXPECT_EQ(KindsIn(version), (Kinds{{"db", "sql"}}));
	}
	for (int from = 1; from <= 3; ++from) {
		ExpectContent(from, 4);
	}
	EXPECT_EQ(MetadataOf(4)["scripted_files"][0], Json::Value("db"));
	EXPECT_NE(Followed(1, 4), PublishedTree()) << "else nothing here has been tested";
}

TEST_F(ScriptChain, NeverPatchesAScriptedFileByBytes) {
	Publish();
	ChangeRows(1);
	Publish();
	Sql("db", "CREATE INDEX m ON u(x)"); // no script can do that
	Publish();
	EXPECT_EQ(KindsIn(3), (Kinds{{"db", "whole"}}));
	EXPECT_EQ(Followed(1, 3), PublishedTree());
	EXPECT_FALSE(MetadataOf(3).isMember("scripted_files"));
}

TEST_F(ScriptChain, RemembersAScriptedFileWhileItIsUnchanged) {
	Publish();
	ChangeRows(1);
	Publish();
	Put("other", "new");
	Publish();
	EXPECT_EQ(MetadataOf(3)["scripted_files"][0], Json::Value("db"));
	Sql("db", "CREATE INDEX m ON u(x)");
	Publish();
	EXPECT_EQ(KindsIn(4), (Kinds{{"db", "whole"}}));
}

TEST_F(ScriptChain, RemembersAScriptedFileWhenItsPackageIsDropped) {
	options_.keep_diffs = 1;
	Publish();
	ChangeRows(1);
	Publish();
	Put("other", "new");
	Publish();
	Sql("db", "CREATE INDEX m ON u(x)");
	Publish();
	EXPECT_EQ(KindsIn(4), (Kinds{{"db", "whole"}}));
}

TEST_F(ScriptChain, MayFollowPatches) {
	Publish();
	Sql("db", "PRAGMA user_version = 3");
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"db", "vcdiff"}}));
	const int first = PublishUntilScripted("db", 3);
	EXPECT_GT(first, 3);
	const int last = PublishUntilScripted("db", first + 1);
	EXPECT_EQ(last, first + 1);
	for (int from = 1; from < last; ++from) {
		ExpectContent(from, last);
	}
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(ScriptChain, ChoosesAnewAfterAVersionWithoutDiff) {
	Publish();
	Sql("db", "PRAGMA user_version = 3");
	Publish();
	options_.data_version = 9;
	Publish();
	options_.data_version.reset();
	warnings_.clear();
	ChangeRows(1);
	Publish();
	EXPECT_EQ(KindsIn(10), (Kinds{{"db", "sql"}}));
	options_.data_version = 20;
	Publish();
	options_.data_version.reset();
	Sql("db", "PRAGMA user_version = 4");
	Publish();
	EXPECT_EQ(KindsIn(21), (Kinds{{"db", "vcdiff"}})) << "all devices have the bytes of version 20";
}

TEST_F(ScriptChain, KeepsTextsWithLineBreaks) {
	Publish();
	Sql("db", "UPDATE t SET a = 'one' || char(10) || 'two;' || char(13, 10) || '''' WHERE i % 40 = 0;"
	          "INSERT INTO u VALUES(char(10)), (x'0a')");
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"db", "sql"}}));
	ExpectContent(1, 2);
}

TEST_F(ScriptChain, KeepsRealsToTheirLastBit) {
	Publish();
	Sql("db", "UPDATE t SET b = 0.1 + 0.2 WHERE i = 5; UPDATE t SET b = -1 / 3.0 WHERE i = 6;"
	          "UPDATE t SET b = 9e999 WHERE i = 7; UPDATE t SET b = 1e300 / 7 WHERE i = 8");
	Publish();
	EXPECT_THAT(warnings_, IsEmpty());
	EXPECT_EQ(KindsIn(2), (Kinds{{"db", "sql"}}));
	ExpectContent(1, 2);
}

TEST_F(ScriptChain, WorksInWalMode) {
	Sql("db", "PRAGMA journal_mode = WAL");
	Publish();
	for (int version = 2; version <= 3; ++version) {
		ChangeRows(version);
		Publish();
		EXPECT_EQ(KindsIn(version), (Kinds{{"db", "sql"}}));
	}
	ExpectContent(1, 3);
	ExpectContent(2, 3);
	EXPECT_FALSE(fs::exists(TreePath("db-shm")));
}

TEST_F(ScriptChain, BringsARepairedIndexToDevices) {
	fs::remove(TreePath("db"));
	Sql("db", IndexWithoutEntry());
	Publish();
	Sql("db", "REINDEX");
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"db", "vcdiff"}}));
	EXPECT_EQ(Followed(1, 2), PublishedTree());
}

TEST_F(ScriptChain, BringsBytesBehindTheLastPageToDevices) {
	const auto seal = [this](const std::string& text) { WriteFile(TreePath("db"), ReadFile(TreePath("db")) + text); };
	seal("signature 1");
	Publish();
	fs::resize_file(TreePath("db"), fs::file_size(TreePath("db")) - 11);
	ChangeRows(1);
	seal("signature 2");
	Publish();
	EXPECT_EQ(Followed(1, 2), PublishedTree());
}

TEST_F(ScriptChain, UsesNoScriptBesideAJournal) {
	Publish();
	ChangeRows(1);
	Put("db-journal", "");
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"db", "vcdiff"}, {"db-journal", "whole"}}));
}

TEST_F(ScriptChain, ReplacesAScriptedFileWhenAJournalComesToIt) {
	Publish();
	ChangeRows(1);
	Publish();
	Put("db-wal", "pages that fit the published bytes alone");
	Publish();
	EXPECT_EQ(KindsIn(3), (Kinds{{"db", "whole"}, {"db-wal", "whole"}}));
	EXPECT_EQ(Followed(1, 3), PublishedTree());
}

TEST_F(ScriptChain, ReplaysScriptsFromTheFileThatTheyBeganWith) {
	Publish();
	ChangeRows(1);
	Publish(); // script
	Sql("db", "CREATE TABLE v(y)");
	Publish(); // whole
	EXPECT_THAT(warnings_, ElementsAre("\"db\" is carried whole, because a script cannot: the schema has changed."));
	warnings_.clear();
	ChangeRows(2);
	Sql("db", "INSERT INTO v VALUES('new')");
	Publish();
	const int last = PublishUntilScripted("db", PublishUntilScripted("db", 5) + 1);
	for (int from = 1; from < last; ++from) {
		ExpectContent(from, last);
	}
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(ScriptChain, GoesOnWithoutTheFullPackageThatItBeganWith) {
	Publish();
	ChangeRows(1);
	Publish();
	fs::remove(Package(1));
	ChangeRows(2);
	Publish();
	EXPECT_EQ(KindsIn(3), (Kinds{{"db", "sql"}}));
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(ScriptChain, GoesOnWhenTheFullPackageThatItBeganWithIsNotBelieved) {
	Publish();
	ChangeRows(1);
	Publish();
	WriteFile(Package(1), "signed by nobody");
	ChangeRows(2);
	Publish();
	EXPECT_EQ(KindsIn(3), (Kinds{{"db", "sql"}}));
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(ScriptChain, MayBeginWithAFileThatBecameADatabaseByPatch) {
	Publish();
	const std::string database = ReadFile(TreePath("db"));
	std::string damaged = database;
	damaged[0] = 'X';
	WriteFile(TreePath("db2"), damaged);
	Publish();
	WriteFile(TreePath("db2"), database);
	Publish();
	const int last = PublishUntilScripted("db2", PublishUntilScripted("db2", 4) + 1);
	ExpectContent(2, last, "db2");
}

} // namespace

} // namespace tarn::test
