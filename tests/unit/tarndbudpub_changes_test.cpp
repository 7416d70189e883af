// What a release changes: versions, where they come from, files, and what becomes of SQLite files.
#include "diff_fixture.h"
#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/common/publish_error.h"
#include "publisher/sqlite/shown_value.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <sstream>

namespace tarn::test {

namespace {

using publisher::ChangeKind;
using publisher::Changes;
using publisher::FileChange;
using publisher::RowIdentity;
using publisher::TableChange;

class ReleaseChanges : public DiffPublisherTest {
protected:
	ReleaseChanges() {
		changes_.repository = options_.repository;
		changes_.id = options_.id;
		changes_.keys = {PublicKey()};
	}

	Changes Find() const { return FindChanges(changes_, observer_); }
	std::string Error() const {
		try {
			static_cast<void>(Find());
			return "";
		} catch (const publisher::PublishError& error) {
			return error.what();
		}
	}
	std::string Text(std::size_t most_files = 100) const {
		std::ostringstream out;
		PrintChangesText(Find(), most_files, out);
		return out.str();
	}
	Json::Value JsonOf(const Changes& changes) const {
		std::ostringstream out;
		PrintChangesJson(changes, out);
		std::istringstream text(out.str());
		Json::Value value;
		text >> value;
		return value;
	}
	/** What is left in the repository of work that is done. */
	std::vector<std::string> Leftovers() const {
		std::vector<std::string> names;
		for (const auto& entry : fs::directory_iterator(options_.repository)) {
			const std::string name = entry.path().filename().string();
			if (name.rfind(".tarndbudpub-work", 0) == 0) {
				names.push_back(name);
			}
		}
		return names;
	}

	/** Three versions with rows, texts and files that come and go. */
	void PublishThree() {
		Put("stays", "stays");
		Put("goes", "four");
		Put("list.txt", "one\n");
		Sql("a.db", "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT);" + Rows(1, 400));
		Publish();
		Sql("a.db", "UPDATE t SET name = 'second' WHERE id = 5; DELETE FROM t WHERE id = 6;");
		fs::remove(TreePath("goes"));
		Publish();
		Sql("a.db", Rows(500, 501) + "UPDATE t SET name = NULL WHERE id = 7;");
		Put("list.txt", "one\ntwo\n");
		Put("new/file", "new");
		Publish();
	}
	static std::string Rows(int first, int last) {
		std::string sql = "BEGIN;";
		for (int i = first; i <= last; ++i) {
			sql += "INSERT INTO t VALUES(" + std::to_string(i) + ",'name " + std::to_string(i) + "');";
		}
		return sql + "COMMIT;";
	}
	void RemoveFull(int version) const { fs::remove(Package(version)); }

	publisher::ChangesOptions changes_;
};

/** Everything but which packages the versions came from, and sizes of files that scripts have made. */
std::string Summary(const Changes& changes) {
	std::string text;
	for (const FileChange& file : changes.files) {
		text += std::string(ChangeKindName(file.Kind())) + " " + file.name;
		if (file.database) {
			for (const TableChange& table : file.database->tables) {
				text += " " + table.name + " +" + std::to_string(table.rows.inserted) + " ~" +
				        std::to_string(table.rows.updated) + " -" + std::to_string(table.rows.deleted);
			}
		}
		text += "\n";
	}
	return text;
}

TEST_F(ReleaseChanges, TellsWhatTheNewestVersionChangesUnlessVersionsAreNamed) {
	PublishThree();
	EXPECT_EQ(Summary(Find()), "changed a.db t +2 ~1 -0\nchanged list.txt\nadded new/file\n");
	changes_.from = 1;
	EXPECT_EQ(Summary(Find()), "changed a.db t +2 ~2 -1\nremoved goes\nchanged list.txt\nadded new/file\n");
	changes_.to = 2;
	const Changes changes = Find();
	EXPECT_EQ(Summary(changes), "changed a.db t +0 ~1 -1\nremoved goes\n");
	EXPECT_EQ(changes.totals.unchanged, 3U);
	EXPECT_EQ(changes.totals.removed, 1U);
	EXPECT_EQ(changes.totals.rows.Total(), 2U);
	EXPECT_TRUE(changes.from.published.has_value());
	changes_.from = 2;
	changes_.to = 1;
	EXPECT_EQ(Summary(Find()), "changed a.db t +1 ~1 -0\nadded goes\n");
	EXPECT_THAT(Leftovers(), IsEmpty());
}

TEST_F(ReleaseChanges, ComeFromDiffPackagesWhereFullPackagesAreNotKept) {
	PublishThree();
	const std::string newest = Summary(Find());
	changes_.from = 1;
	const std::string both = Summary(Find());
	RemoveFull(2);
	RemoveFull(3);
	const Changes found = Find();
	EXPECT_EQ(Summary(found), both);
	EXPECT_EQ(found.to.full_package, 1);
	EXPECT_EQ(found.to.diffs, 2);
	changes_.from.reset();
	EXPECT_EQ(Summary(Find()), newest);
	EXPECT_THAT(Text(), HasSubstr("from the full package of version 1 and 2 diff packages.\n"));
}

TEST_F(ReleaseChanges, NameThePackageThatIsMissing) {
	PublishThree();
	RemoveFull(3);
	fs::remove(Diff(3));
	EXPECT_EQ(Error(), "Version 3 of db cannot be made from the packages that are kept: neither " + Package(3) +
	                       " nor " + Diff(3) + " is there.");
	changes_.from = 1;
	changes_.to = 2;
	EXPECT_EQ(Error(), "");
	RemoveFull(1);
	EXPECT_THAT(Error(), AllOf(StartsWith("Version 1 of db cannot be made"), HasSubstr("db_d1.tarn is there.")));
	EXPECT_THAT(Leftovers(), IsEmpty());
}

TEST_F(ReleaseChanges, TrustNoPackageOfAnotherKey) {
	PublishThree();
	archive::GenerateKeyFiles(directory_ / "other");
	changes_.keys = {directory_ / "other.pub"};
	EXPECT_THAT(
	    Error(), AllOf(HasSubstr("Version 2 of db cannot be made"), HasSubstr("has no signature by a trusted key.")));
	changes_.keys.push_back(PublicKey());
	EXPECT_EQ(Error(), "");
}

TEST_F(ReleaseChanges, RefuseVersionsThatAreNotThere) {
	Publish();
	EXPECT_THAT(Error(), HasSubstr("There is no version of db below 1 in "));
	changes_.from = changes_.to = 1;
	EXPECT_EQ(Error(), "FROM and TO are both version 1.");
	changes_.id = "other";
	changes_.from = changes_.to = std::nullopt;
	EXPECT_THAT(Error(), HasSubstr("does not name other: give both versions, or --channel."));
	changes_.repository = directory_ / "missing";
	EXPECT_THAT(Error(), HasSubstr("is no directory that can be read"));
	EXPECT_FALSE(fs::exists(directory_ / "missing"));
}

TEST_F(ReleaseChanges, RemoveWhatAKilledProcessLeft) {
	PublishThree();
	WriteFile(options_.repository + "/.tarndbudpub-work-killed/from/file", "left");
	EXPECT_EQ(Error(), "");
	EXPECT_THAT(Leftovers(), IsEmpty());
}

TEST_F(ReleaseChanges, LeaveOutDatabasesWhoseBytesAloneScriptsHaveChanged) {
	// Rows in a mixed order, which VACUUM brings into order, and a script does not.
	Sql("a.db",
	    "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL "
	    "SELECT i + 1 FROM n WHERE i < 2000) INSERT INTO t SELECT i * 7919 % 2003, hex(randomblob(30)) FROM n;");
	Publish();
	Sql("a.db", "UPDATE t SET name = 'changed' WHERE id % 97 = 0; VACUUM;");
	Publish();
	ASSERT_EQ(KindsIn(2)["a.db"], "sql");
	Put("new");
	Publish();
	EXPECT_EQ(Summary(Find()), "added new\n");
	RemoveFull(2);
	ASSERT_NE(Followed(1, 2)["a.db"], PublishedTree()["a.db"]);
	EXPECT_EQ(Summary(Find()), "added new\n");
	EXPECT_EQ(Find().totals.unchanged, 2U);
}

TEST_F(ReleaseChanges, CompareDamagedFilesAsBytes) {
	const std::string pretends = std::string("SQLite format 3\0", 16) + std::string(4096, 'x');
	Put("pretends", pretends);
	Put("becomes", "a text");
	for (const char* name : {"damaged", "journal"}) {
		Sql(name, "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT);" + Rows(1, 400));
	}
	Put("journal-wal", "pages");
	Publish();
	Put("pretends", pretends + "more");
	Put("becomes", pretends);
	Sql("journal", Rows(500, 500));
	std::string damaged = ReadFile(TreePath("damaged"));
	damaged.replace(4096, 4096, std::string(4096, '\xAA'));
	WriteFile(TreePath("damaged"), damaged);
	Put("journal-wal", "pages"); // which SQLite has taken away
	Publish();
	std::map<std::string, std::string> notes;
	for (const FileChange& file : Find().files) {
		EXPECT_FALSE(file.database) << file.name;
		notes[file.name] = file.note;
	}
	EXPECT_EQ(notes["becomes"], "it is an SQLite database in one version only");
	EXPECT_EQ(notes["damaged"], "database disk image is malformed");
	EXPECT_EQ(notes["journal"], "SQLite's journal lies beside it");
	EXPECT_EQ(notes["pretends"], "file is not a database");
	EXPECT_THAT(Text(), HasSubstr("compared as bytes: file is not a database\n"));
}

TEST_F(ReleaseChanges, ListNoMoreThanTheyMay) {
	EXPECT_EQ(changes_.most_listed, 100'000U);
	PublishThree();
	EXPECT_FALSE(Find().is_truncated);
	changes_.most_listed = 3; // of two files, a table and two examples, and a third file
	const Changes changes = Find();
	EXPECT_TRUE(changes.is_truncated);
	EXPECT_EQ(Summary(changes), "changed a.db\nchanged list.txt\nadded new/file\n");
	EXPECT_EQ(changes.totals.rows.Total(), 3U);
	changes_.most_listed = 1;
	EXPECT_EQ(Summary(Find()), "changed a.db\n");
	EXPECT_TRUE(JsonOf(Find())["truncated"].asBool());
	EXPECT_THAT(Text(), AllOf(HasSubstr("Not listed: 2 more files."), HasSubstr("too long to be kept whole")));
	changes_.most_listed = publisher::kMostListedChanges;
	EXPECT_THAT(Text(1), AllOf(HasSubstr("changed  a.db"), Not(HasSubstr("list.txt")), HasSubstr("2 more files")));
}

TEST_F(ReleaseChanges, PrintTheSameAsJson) {
	PublishThree();
	const Json::Value value = JsonOf(Find());
	EXPECT_EQ(value["id"], "db");
	EXPECT_EQ(value["from"]["version"], 2);
	EXPECT_EQ(value["to"]["version"], 3);
	EXPECT_FALSE(value["truncated"].asBool());
	EXPECT_EQ(value["totals"]["files"]["changed"], 2);
	EXPECT_EQ(value["totals"]["rows"]["inserted"], 2);
	ASSERT_EQ(value["files"].size(), 3U);
	const Json::Value& table = value["files"][0]["database"]["tables"][0];
	EXPECT_EQ(table["compared_by"], "key");
	EXPECT_EQ(table["rows"]["updated"], 1);
	const Json::Value& updated = table["examples"][2];
	EXPECT_EQ(updated["key"], "id=7");
	EXPECT_EQ(updated["values"][0]["before"], "'name 7'");
	EXPECT_EQ(updated["values"][0]["after"], "NULL");
	EXPECT_TRUE(value["files"][2]["before"].isNull());
}

class DatabaseChanges : public ::testing::Test {
protected:
	/** Compares what two scripts make. */
	publisher::DatabaseChange Compare(const std::string& before, const std::string& after, std::size_t examples = 3) {
		for (const char* name : {"before", "after"}) {
			fs::remove(directory_ / name);
		}
		ExecuteSql(directory_ / "before", before);
		ExecuteSql(directory_ / "after", after);
		return publisher::CompareDatabases(directory_ / "before", directory_ / "after", examples);
	}
	TableChange OnlyTable(const std::string& before, const std::string& after) {
		publisher::DatabaseChange change = Compare(before, after);
		EXPECT_EQ(change.tables.size(), 1U);
		return change.tables.empty() ? TableChange() : change.tables.front();
	}
	static std::string Counts(const TableChange& table) {
		return "+" + std::to_string(table.rows.inserted) + " ~" + std::to_string(table.rows.updated) + " -" +
		       std::to_string(table.rows.deleted);
	}

	TemporaryDirectory directory_;
};

TEST_F(DatabaseChanges, AreNoneForTheSameContentInOtherBytes) {
	const std::string table = "CREATE TABLE t(a PRIMARY KEY, b); INSERT INTO t VALUES(1,2),(3,4);";
	EXPECT_TRUE(
	    Compare(table, table + "INSERT INTO t VALUES(5,zeroblob(99999)); DELETE FROM t WHERE a = 5;").IsEmpty());
}

TEST_F(DatabaseChanges, FindRowsByTheirPrimaryKeyWhateverTheirRowIdsAre) {
	const TableChange table =
	    OnlyTable("CREATE TABLE t(a TEXT PRIMARY KEY, b); INSERT INTO t VALUES('x',1),('y',2),('z',3);",
	        "CREATE TABLE t(a TEXT PRIMARY KEY, b); INSERT INTO t VALUES('z',3),('y',2.0),('new',3),('x',1);");
	EXPECT_EQ(table.identity, RowIdentity::kKey);
	EXPECT_EQ(Counts(table), "+1 ~1 -0");
	ASSERT_EQ(table.examples.size(), 2U);
	EXPECT_EQ(table.examples[1].key, "a='y'");
	EXPECT_EQ(table.examples[1].values[0].before, "2");
	EXPECT_EQ(table.examples[1].values[0].after, "2.0");
}

TEST_F(DatabaseChanges, FindRowsOfTablesWithoutRowIdByAllOfTheirKey) {
	const std::string made = "CREATE TABLE t(a COLLATE NOCASE, b, c, PRIMARY KEY(b, a)) WITHOUT ROWID;";
	const TableChange table = OnlyTable(made + "INSERT INTO t VALUES('x',1,1),('x',2,1),('y',1,1);",
	    made + "INSERT INTO t VALUES('X',1,1),('x',2,1),('y',2,1);");
	EXPECT_EQ(Counts(table), "+1 ~1 -1");
	EXPECT_EQ(table.examples[1].values[0].after, "'X'");
}

TEST_F(DatabaseChanges, CountRowsWithoutAKeyByContentAndNumber) {
	const TableChange table =
	    OnlyTable("CREATE TABLE t(a TEXT COLLATE NOCASE, b); INSERT INTO t VALUES('x',1),('x',1),('y',1);",
	        "CREATE TABLE t(a TEXT COLLATE NOCASE, b); INSERT INTO t VALUES('y',1),('X',1),('x',1),('x',1.0);");
	EXPECT_EQ(table.identity, RowIdentity::kContent);
	EXPECT_EQ(Counts(table), "+2 ~0 -1");
}

TEST_F(DatabaseChanges, CompareByContentWhereAKeyIsNullOrHasChanged) {
	const std::string made = "CREATE TABLE t(a TEXT PRIMARY KEY, b);";
	EXPECT_EQ(Counts(OnlyTable(made + "INSERT INTO t VALUES(NULL,1),(NULL,1),('x',1);",
	              made + "INSERT INTO t VALUES(NULL,1),('x',2);")),
	    "+1 ~0 -2");
	const TableChange one_null =
	    OnlyTable(made + "INSERT INTO t VALUES('x',1);", made + "INSERT INTO t VALUES(NULL,1),('x',2);");
	EXPECT_EQ(one_null.identity, RowIdentity::kKey);
	EXPECT_EQ(Counts(one_null), "+1 ~1 -0");
	const TableChange table = OnlyTable(made + "INSERT INTO t VALUES('x',1),('y',1);",
	    "CREATE TABLE t(a TEXT COLLATE NOCASE PRIMARY KEY, b); INSERT INTO t VALUES('x',2),('y',1);");
	EXPECT_EQ(table.identity, RowIdentity::kContent);
	EXPECT_TRUE(table.has_new_definition);
	EXPECT_EQ(Counts(table), "+1 ~0 -1");
}

TEST_F(DatabaseChanges, CompareTheColumnsThatBothVersionsHave) {
	const TableChange table =
	    OnlyTable("CREATE TABLE t(id INTEGER PRIMARY KEY, a, b); INSERT INTO t VALUES(1,1,1),(2,2,2);",
	        "CREATE TABLE t(id INTEGER PRIMARY KEY, c, a); INSERT INTO t VALUES(1,9,1),(2,9,3);");
	EXPECT_THAT(table.added_columns, ElementsAre("c"));
	EXPECT_THAT(table.removed_columns, ElementsAre("b"));
	EXPECT_EQ(Counts(table), "+0 ~1 -0");
	EXPECT_THAT(OnlyTable("CREATE TABLE t(a)", "CREATE TABLE t(b)").obstacle, HasSubstr("no column in common"));
}

TEST_F(DatabaseChanges, NameTablesIndexesViewsTriggersAndSettings) {
	const auto change = Compare("CREATE TABLE gone(a); INSERT INTO gone VALUES(1),(2); CREATE TABLE t(a);"
	                            "CREATE INDEX i ON t(a); CREATE VIEW v AS SELECT 1;",
	    "CREATE TABLE fresh(a); INSERT INTO fresh VALUES(1); CREATE TABLE t(a); CREATE INDEX i ON t(a DESC);"
	    "CREATE TRIGGER r AFTER INSERT ON t BEGIN SELECT 1; END; PRAGMA user_version = 7;");
	ASSERT_EQ(change.tables.size(), 2U);
	EXPECT_EQ(change.tables[0].kind, ChangeKind::kAdded);
	EXPECT_EQ(Counts(change.tables[0]), "+1 ~0 -0");
	EXPECT_EQ(change.tables[1].kind, ChangeKind::kRemoved);
	EXPECT_EQ(Counts(change.tables[1]), "+0 ~0 -2");
	ASSERT_EQ(change.definitions.size(), 3U);
	EXPECT_EQ(change.definitions[0].kind, ChangeKind::kChanged);
	EXPECT_EQ(change.definitions[1].type, "trigger");
	EXPECT_EQ(change.definitions[2].kind, ChangeKind::kRemoved);
	ASSERT_EQ(change.settings.size(), 1U);
	EXPECT_EQ(change.settings[0].name + change.settings[0].before + change.settings[0].after, "user_version07");
}

TEST_F(DatabaseChanges, ReadFullTextTablesByTheirRowsAndSayWhatTheyCannotRead) {
	const std::string made = "CREATE VIRTUAL TABLE f USING fts5(body); INSERT INTO f VALUES('one'),('two');"
	                         "CREATE VIRTUAL TABLE r USING rtree(id, a, b); INSERT INTO r VALUES(1,2,3);"
	                         "CREATE VIRTUAL TABLE none USING fts5(body, content=''); INSERT INTO none VALUES('one');";
	const auto change = Compare(
	    made, made + "UPDATE f SET body = 'three' WHERE rowid = 2; DELETE FROM r; INSERT INTO f VALUES('four');");
	ASSERT_EQ(change.tables.size(), 3U); // and none of those that the virtual tables keep
	EXPECT_EQ(change.tables[0].name + Counts(change.tables[0]), "f+1 ~1 -0");
	EXPECT_EQ(change.tables[0].identity, RowIdentity::kRowId);
	EXPECT_THAT(change.tables[1].obstacle, HasSubstr("does not hold the text of its rows alone"));
	EXPECT_EQ(change.tables[2].name + Counts(change.tables[2]), "r+0 ~0 -1");
}

TEST_F(DatabaseChanges, SayOfTheOneTableThatCannotBeReadAloneThatItIsNotCompared) {
	const std::string made =
	    "CREATE TABLE \"a \"\"b\nc\"(\"x\ny\" PRIMARY KEY, b); CREATE TABLE t(a TEXT PRIMARY KEY, b);";
	const auto with_collation = [&](const std::string& path, const std::string& rows) {
		ExecuteSql(path, made + rows);
		SQLite::Database file(path, SQLite::OPEN_READWRITE);
		file.exec(
		    "PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = replace(sql, 'a TEXT', 'a TEXT COLLATE OWN') "
		    "WHERE name = 't';");
	};
	with_collation(directory_ / "before", "INSERT INTO t VALUES('x',1);");
	with_collation(directory_ / "after", "INSERT INTO t VALUES('x',2); INSERT INTO \"a \"\"b\nc\" VALUES(1,2);");
	const auto change = publisher::CompareDatabases(directory_ / "before", directory_ / "after", 1);
	ASSERT_EQ(change.tables.size(), 2U);
	EXPECT_EQ(change.tables[0].name, "a \"b\\x0ac");
	EXPECT_EQ(Counts(change.tables[0]), "+1 ~0 -0");
	EXPECT_THAT(change.tables[1].obstacle, HasSubstr("no such collation sequence: OWN"));
	EXPECT_EQ(Counts(change.tables[1]), "+0 ~0 -0");
}

TEST_F(DatabaseChanges, CompareTextsOfAnyEncodingAndShowThoseInUtf8) {
	const std::string made = "PRAGMA encoding = 'UTF-16le'; CREATE TABLE \"größe\"(a INTEGER PRIMARY KEY, b);";
	const TableChange table =
	    OnlyTable(made + "INSERT INTO größe VALUES(1,'ä');", made + "INSERT INTO größe VALUES(1,'ö');");
	EXPECT_EQ(table.name, "größe");
	EXPECT_EQ(Counts(table), "+0 ~1 -0");
	EXPECT_EQ(table.examples[0].values[0].after, "a text of 2 B");
	EXPECT_THROW(static_cast<void>(Compare("CREATE TABLE t(a)", made)), SQLite::Exception);
}

TEST_F(DatabaseChanges, ShowAsManyExamplesAsTheyAreAskedFor) {
	const std::string made = "CREATE TABLE t(id INTEGER PRIMARY KEY, a, b, c, d, e, f, g, h, i);";
	const std::string rows = "INSERT INTO t(id, a) VALUES(1,1),(2,1),(3,1);";
	auto change = Compare(made, made + rows, 2);
	EXPECT_EQ(change.tables[0].examples.size(), 2U);
	EXPECT_EQ(change.tables[0].examples[0].values.size() + change.tables[0].examples[0].more_values, 10U);
	EXPECT_GT(change.tables[0].examples[0].more_values, 0U);
	EXPECT_THAT(Compare(made, made + rows, 0).tables[0].examples, IsEmpty());
}

publisher::SqlValue Text(const std::string& text) {
	return {SQLITE_TEXT, 0, text};
}

TEST(ShownValueTest, IsShortAndSafeForATerminal) {
	using publisher::ShownText;
	using publisher::ShownValue;
	EXPECT_EQ(ShownText("Größe 東京 \U0001F600"), "Größe 東京 \U0001F600");
	EXPECT_EQ(ShownText("a\x1b[0m\n\x7f"), "a\\x1b[0m\\x0a\\x7f");
	EXPECT_EQ(ShownText(std::string("\xc2\x9b \xe2") + "\x80\xae \xed\xa0\x80 \xff"),
	    "\\xc2\\x9b \\xe2\\x80\\xae \\xed\\xa0\\x80 \\xff");
	EXPECT_EQ(ShownText("\xe6\x9d"), "\\xe6\\x9d");
	EXPECT_EQ(ShownValue({SQLITE_INTEGER, -5, ""}, true), "-5");
	EXPECT_EQ(ShownValue({SQLITE_BLOB, 0, "12345"}, true), "a blob of 5 B");
	EXPECT_EQ(ShownValue({}, true), "NULL");
	EXPECT_EQ(ShownValue(Text(std::string(100, 'a')), true), "'" + std::string(48, 'a') + "...' (100 B)");
}

TEST(ShownValueTest, ShowsWhereLongTextsDiffer) {
	const std::string same(1000, 'a');
	const auto [before, after] = publisher::ShownChange(Text(same + "old" + same), Text(same + "new"), true);
	EXPECT_THAT(before, AllOf(StartsWith("'...aaaaaaaaaaaaoldaaa"), HasSubstr("...' (2.0 kB)")));
	EXPECT_THAT(after, StartsWith("'...aaaaaaaaaaaanew' (1.0 kB)"));
	EXPECT_EQ(publisher::ShownChange(Text("old"), Text("new"), true).second, "'new'");
}

TEST_F(ReleaseChanges, AreACommand) {
	PublishThree();
	std::ostringstream out;
	std::ostringstream err;
	const auto run = [&](std::vector<std::string> more) {
		out.str("");
		err.str("");
		more.insert(more.begin(), {"changes", "db", "--repo", options_.repository, "--key", PublicKey()});
		return publisher::RunCommandLine(more, out, err, false);
	};
	EXPECT_EQ(run({}), publisher::kDone);
	EXPECT_THAT(out.str(),
	    AllOf(StartsWith("Changes of db from version 2 to 3.\n"),
	        HasSubstr("\nFiles: 1 added, 0 removed, 2 changed, 2 unchanged; "),
	        HasSubstr("\nRows in 1 database: 2 inserted, 1 updated.\n"),
	        HasSubstr("    table t: 2 inserted, 1 updated\n"),
	        HasSubstr("        updated where id=7: name: 'name 7' -> NULL\n"), HasSubstr("added    new/file (3 B)\n")));
	EXPECT_EQ(run({"1", "--json", "--examples", "0", "--limit", "0"}), publisher::kDone);
	EXPECT_THAT(out.str(), AllOf(StartsWith("{\n\t\"id\" : \"db\",\n"), HasSubstr("\"examples\":[]")));
	EXPECT_EQ(run({"one"}), publisher::kUsage);
	EXPECT_THAT(err.str(), HasSubstr("FROM \"one\" must be the number of a version."));
	EXPECT_EQ(run({"--examples", "1001"}), publisher::kUsage);
	EXPECT_THAT(err.str(), HasSubstr("--examples 1001 must be 0 to 1000."));
	EXPECT_EQ(run({"--limit", "-1"}), publisher::kUsage);
	EXPECT_EQ(run({"2", "3"}), publisher::kDone);
	EXPECT_EQ(run({"3", "4"}), publisher::kFailed);
	EXPECT_THAT(err.str(), HasSubstr("Version 4 of db cannot be made"));
}

} // namespace

} // namespace tarn::test
