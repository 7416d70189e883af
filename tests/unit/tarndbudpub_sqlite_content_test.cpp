// Which databases hold the same, and which may be changed by scripts.
#include "diff_fixture.h"
#include "publisher/common/publish_error.h"
#include "publisher/sqlite/sqlite_content.h"
#include "publisher/sqlite/virtual_tables.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

namespace tarn::test {

namespace {

class SqliteContent : public ::testing::Test {
protected:
	std::string Database(const std::string& name, const std::string& sql) const {
		ExecuteSql(directory_ / name, sql);
		return directory_ / name;
	}
	std::optional<std::string> Difference(const std::string& left, const std::string& right) const {
		++pairs_;
		const std::string number = std::to_string(pairs_);
		return publisher::FindContentDifference(Database(number + "l", left), Database(number + "r", right));
	}
	std::optional<std::string> Obstacle(const std::string& before, const std::string& after) const {
		++pairs_;
		const std::string number = std::to_string(pairs_);
		return publisher::FindScriptObstacle(Database(number + "b", before), Database(number + "a", after));
	}

	TemporaryDirectory directory_;
	mutable int pairs_ = 0;
};

constexpr const char* kTable = "CREATE TABLE t(a, b);";

TEST_F(SqliteContent, IsTheSameHoweverPagesLie) {
	const std::string rows = "INSERT INTO t VALUES(1, 'x'), (2, x'00ff'), (3, NULL), (4, 1.5);";
	EXPECT_EQ(Difference(kTable + rows, kTable + rows), std::nullopt);
	EXPECT_EQ(Difference(std::string(kTable) + "INSERT INTO t VALUES(9, zeroblob(50000)); DELETE FROM t;" + rows,
	              kTable + rows),
	    std::nullopt);
}

TEST_F(SqliteContent, DiffersInEveryValueTypeAndRowId) {
	const auto row = [](const std::string& value) {
		return kTable + std::string("INSERT INTO t(rowid, a, b) VALUES(") + value + ", 0);";
	};
	EXPECT_THAT(Difference(row("1, 1"), row("1, 2")), Optional(HasSubstr("table t")));
	EXPECT_NE(Difference(row("1, 1"), row("1, 1.0")), std::nullopt);
	EXPECT_NE(Difference(row("1, 'a'"), row("1, x'61'")), std::nullopt);
	EXPECT_NE(Difference(row("1, 0.3"), row("1, 0.1 + 0.2")), std::nullopt);
	EXPECT_NE(Difference(row("1, NULL"), row("1, ''")), std::nullopt);
	EXPECT_NE(Difference(row("1, 'a' || char(0) || 'b'"), row("1, 'a' || char(0) || 'c'")), std::nullopt);
	EXPECT_NE(Difference(row("1, 1"), row("2, 1")), std::nullopt);
	EXPECT_NE(Difference(row("1, 1"), kTable), std::nullopt);
	EXPECT_NE(Difference(kTable, row("1, 1")), std::nullopt);
}

TEST_F(SqliteContent, IncludesTablesWithoutRowIdsAndThoseOfSqliteItself) {
	const std::string table = "CREATE TABLE w(k TEXT PRIMARY KEY, v) WITHOUT ROWID;";
	EXPECT_NE(
	    Difference(table + "INSERT INTO w VALUES('a', 1);", table + "INSERT INTO w VALUES('a', 2);"), std::nullopt);
	const std::string counted = "CREATE TABLE c(i INTEGER PRIMARY KEY AUTOINCREMENT);";
	EXPECT_THAT(Difference(counted + "INSERT INTO c VALUES(5); DELETE FROM c;", counted),
	    Optional(HasSubstr("sqlite_sequence")));
	EXPECT_NE(Difference(kTable, std::string(kTable) + "CREATE INDEX i ON t(a);"), std::nullopt);
}

TEST_F(SqliteContent, IsReadWithoutTouchingTheDirectory) {
	const std::string sql = std::string("PRAGMA journal_mode = WAL;") + kTable;
	const std::string left = Database("left?#%41", sql);
	const std::string right = Database("right", sql);
	const auto files = FilesBelow(directory_.Path());
	EXPECT_EQ(publisher::FindContentDifference(left, right), std::nullopt);
	EXPECT_EQ(publisher::FindScriptObstacle(left, right), std::nullopt);
	EXPECT_EQ(FilesBelow(directory_.Path()), files);
	EXPECT_EQ(files.size(), 2U);
}

TEST_F(SqliteContent, IsToldWhenItCannotBeRead) {
	const std::string sound = Database("sound", std::string(kTable) + "INSERT INTO t VALUES(1, zeroblob(100000));");
	std::string bytes = ReadFile(sound);
	bytes.resize(8192);
	WriteFile(directory_ / "short", bytes);
	EXPECT_THAT(
	    publisher::FindContentDifference(sound, directory_ / "short"), Optional(HasSubstr("cannot be compared")));
}

TEST_F(SqliteContent, MayChangeByScriptWhenOnlyRowsDiffer) {
	EXPECT_EQ(Obstacle(kTable, std::string(kTable) + "INSERT INTO t VALUES(1, zeroblob(90000));"), std::nullopt);
}

TEST_F(SqliteContent, MayNotChangeByScriptWhenMoreThanRowsDiffers) {
	const std::string table = kTable;
	EXPECT_THAT(Obstacle(table, table + "CREATE INDEX i ON t(a);"), Optional(HasSubstr("schema")));
	EXPECT_THAT(Obstacle(table, "PRAGMA page_size = 8192;" + table), Optional(HasSubstr("page size")));
	EXPECT_THAT(Obstacle(table, "PRAGMA journal_mode = WAL;" + table), Optional(HasSubstr("journal mode")));
	EXPECT_THAT(Obstacle(table, "PRAGMA auto_vacuum = FULL;" + table), Optional(HasSubstr("auto vacuum")));
	EXPECT_THAT(Obstacle(table, "PRAGMA user_version = 2;" + table), Optional(HasSubstr("user version")));
	EXPECT_THAT(Obstacle(table, "PRAGMA application_id = 2;" + table), Optional(HasSubstr("application id")));
	EXPECT_THAT(Obstacle(table, "PRAGMA encoding = 'UTF-16le';" + table), Optional(HasSubstr("text encoding")));
}

TEST_F(SqliteContent, MayNotChangeByScriptWhereStatementsDoMoreThanTheySay) {
	const auto both = [this](const std::string& sql) { return Obstacle(sql, sql); };
	const std::string table = kTable;
	EXPECT_THAT(
	    both(table + "CREATE TRIGGER g AFTER INSERT ON t BEGIN DELETE FROM t; END;"), Optional(HasSubstr("triggers")));
	EXPECT_EQ(both("CREATE VIRTUAL TABLE v USING fts5(a); CREATE VIRTUAL TABLE w USING rtree_i32(i, a, b, +c);"
	               "CREATE VIRTUAL TABLE \"u using x(\" USING FTS4 (a); CREATE VIRTUAL TABLE x USING fts3(a);"),
	    std::nullopt);
	EXPECT_THAT(
	    both("CREATE VIRTUAL TABLE v USING dbstat(main);"), Optional(HasSubstr("v is a virtual one of dbstat")));
	for (const std::string columns : {"fts5(a, content='t')", "fts5(a, content='')", "fts4(a, content='t')",
	         "fts4(a, content='')", "fts4(a, languageid='l')"}) {
		EXPECT_THAT(both(table + "CREATE VIRTUAL TABLE v USING " + columns),
		    Optional(std::string("the table v does not hold the text of its rows alone")))
		    << columns;
	}
	EXPECT_EQ(both("CREATE TABLE g(a, b AS (a + 1), c AS (a + 2) STORED);"), std::nullopt);
	EXPECT_THAT(both("CREATE TABLE h(rowid, oid, _rowid_);"), Optional(HasSubstr("row ids")));
	EXPECT_THAT(both("PRAGMA encoding = 'UTF-16le';" + table), Optional(HasSubstr("UTF-8")));
	EXPECT_EQ(both("CREATE TABLE h(rowid, oid);"), std::nullopt);
}

TEST_F(SqliteContent, MayNotChangeByScriptWhereBytesLieBesideTheRows) {
	const std::string plain = Database("plain", kTable);
	const std::string sealed = Database("sealed", kTable);
	WriteFile(sealed, ReadFile(sealed) + "signature");
	const auto has_trailer = Optional(HasSubstr("bytes behind its last page"));
	EXPECT_THAT(publisher::FindScriptObstacle(plain, sealed), has_trailer);
	EXPECT_THAT(publisher::FindScriptObstacle(sealed, plain), has_trailer);
	const std::string reserving = directory_ / "reserving";
	{
		SQLite::Database database(reserving, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
		int bytes = 8;
		ASSERT_EQ(sqlite3_file_control(database.getHandle(), "main", SQLITE_FCNTL_RESERVE_BYTES, &bytes), SQLITE_OK);
		database.exec(kTable);
	}
	EXPECT_THAT(publisher::FindScriptObstacle(reserving, reserving), Optional(HasSubstr("reserved for an extension")));
}

TEST_F(SqliteContent, IsNotSoundWhereAnIndexLacksAnEntry) {
	const std::string damaged = Database("damaged", IndexWithoutEntry());
	EXPECT_THROW(publisher::RequireSoundDatabase(damaged), publisher::PublishError);
	const auto files = FilesBelow(directory_.Path());
	ExecuteSql(damaged, "REINDEX");
	EXPECT_NO_THROW(publisher::RequireSoundDatabase(damaged));
	EXPECT_EQ(FilesBelow(directory_.Path()).size(), files.size());
}

TEST_F(SqliteContent, IsTheRowsOfVirtualTablesAndTheirSettings) {
	for (const std::string module : {"fts3", "fts4", "fts5"}) {
		const std::string made = "CREATE VIRTUAL TABLE v USING " + module + "(a); INSERT INTO v VALUES('one');";
		const std::string sound = Database(module + "-sound", made + "INSERT INTO v VALUES('two words')");
		const std::string other = Database(module + "-other", made + "INSERT INTO v VALUES('two others')");
		const std::string detour = Database(module + "-detour",
		    made + "INSERT INTO v VALUES('wrong'); UPDATE v SET a = 'two words' WHERE rowid = 2; INSERT INTO v(v) "
		           "VALUES('optimize');");
		EXPECT_THAT(publisher::FindContentDifference(sound, other), Optional(std::string("the table v differs")));
		EXPECT_EQ(publisher::FindContentDifference(sound, detour), std::nullopt) << module;
		EXPECT_NO_THROW(publisher::RequireSoundIndexes(detour));
		SQLite::Database(sound, SQLite::OPEN_READWRITE)
		    .exec(std::string("UPDATE v_content SET ") + (module == "fts5" ? "c0" : "c0a") +
		          " = 'one word' WHERE rowid = 2");
		EXPECT_THROW(publisher::RequireSoundIndexes(sound), publisher::PublishError) << module;
	}
	const std::string ranked = "CREATE VIRTUAL TABLE v USING fts5(a); INSERT INTO v VALUES('one');";
	EXPECT_THAT(publisher::FindContentDifference(Database("plain", ranked),
	                Database("ranked", ranked + "INSERT INTO v(v, rank) VALUES('rank', 'bm25(9.0)');")),
	    Optional(std::string("the table v differs")));
	const std::string tree = "CREATE VIRTUAL TABLE r USING rtree(i, x0, x1); INSERT INTO r VALUES(1, 0.1, 0.3);";
	EXPECT_THAT(publisher::FindContentDifference(
	                Database("tree", tree), Database("moved", tree + "UPDATE r SET x1 = 0.30001;")),
	    Optional(std::string("the table r differs")));
	EXPECT_NO_THROW(publisher::RequireSoundIndexes(directory_ / "tree"));
	SQLite::Database(directory_ / "tree", SQLite::OPEN_READWRITE).exec("DELETE FROM r_rowid");
	EXPECT_THROW(publisher::RequireSoundIndexes(directory_ / "tree"), publisher::PublishError);
}

TEST_F(SqliteContent, IsToldFromOtherFiles) {
	EXPECT_TRUE(publisher::IsSqliteFile(Database("d", kTable)));
	WriteFile(directory_ / "text", "SQLite format 3");
	WriteFile(directory_ / "empty", "");
	EXPECT_FALSE(publisher::IsSqliteFile(directory_ / "text"));
	EXPECT_FALSE(publisher::IsSqliteFile(directory_ / "empty"));
	EXPECT_TRUE(publisher::IsInWalMode(Database("w", std::string("PRAGMA journal_mode = WAL;") + kTable)));
	EXPECT_FALSE(publisher::IsInWalMode(directory_ / "d"));
	EXPECT_FALSE(publisher::IsInWalMode(directory_ / "text"));
	EXPECT_THAT(
	    publisher::FindScriptObstacle(directory_ / "d", directory_ / "text"), Optional(HasSubstr("no database")));
}

} // namespace

} // namespace tarn::test
