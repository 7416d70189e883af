#include "dataupdate/internal/sql_script.h"
#include "fake_system.h"
#include "library_test.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

class SqlScriptTest : public testing::Test {
protected:
	SqlScriptTest() { Execute("CREATE TABLE t(a PRIMARY KEY, b); INSERT INTO t VALUES(1, 'one'),(2, 'two')"); }

	void Execute(const std::string& statements) const {
		SQLite::Database(file_, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(statements);
	}
	void Run(const std::string& script) const {
		WriteFile(script_, script);
		ExecuteSqlScript(file_, script_);
	}
	std::string Failure(const std::string& script) const {
		return MessageOf([&] { Run(script); });
	}
	/** Whether the script fails and leaves every byte of the database as it was, and nothing beside it. */
	testing::AssertionResult IsRefused(const std::string& script, const std::string& why) const {
		const std::string before = ReadFile(file_);
		const std::string message = Failure(script);
		if (message.find("Fail apply sql cmd: ") != 0 || message.find(why) == std::string::npos) {
			return testing::AssertionFailure() << script << ": " << message;
		}
		if (ReadFile(file_) != before || Names() != std::vector<std::string>{"db", "script"}) {
			return testing::AssertionFailure() << script << ": left something";
		}
		return testing::AssertionSuccess();
	}
	std::vector<std::string> Names() const {
		std::vector<std::string> names;
		for (const fs::directory_entry& entry : fs::directory_iterator(directory_.Path())) {
			names.push_back(entry.path().filename());
		}
		std::sort(names.begin(), names.end());
		return names;
	}
	std::vector<std::string> Rows() const {
		SQLite::Database database(file_, SQLite::OPEN_READONLY);
		SQLite::Statement query(database, "SELECT b FROM t ORDER BY a");
		std::vector<std::string> rows;
		while (query.executeStep()) {
			rows.push_back(query.getColumn(0).getString());
		}
		return rows;
	}

	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
	std::string file_ = directory_ / "db";
	std::string script_ = directory_ / "script";
};

TEST_F(SqlScriptTest, ExecutesLineByLine) {
	Run("UPDATE t SET b = 'eins' WHERE a = 1;\nDELETE FROM t WHERE a = 2\nINSERT INTO t VALUES(3, 'drei');\n");
	EXPECT_THAT(Rows(), ElementsAre("eins", "drei"));
	EXPECT_THAT(Names(), ElementsAre("db", "script"));
}

TEST_F(SqlScriptTest, ExecutesALastLineWithoutAnEnd) {
	Run("DELETE FROM t WHERE a = 1;\nDELETE FROM t WHERE a = 2");
	EXPECT_THAT(Rows(), ElementsAre());
}

TEST_F(SqlScriptTest, ExecutesSeveralStatementsOfALine) {
	Run("DELETE FROM t; INSERT INTO t VALUES(3, 'drei'); INSERT INTO t VALUES(4, 'vier')\n");
	EXPECT_THAT(Rows(), ElementsAre("drei", "vier"));
}

TEST_F(SqlScriptTest, TakesBlankLinesCommentsAndCarriageReturns) {
	Run("\r\n-- nothing; here\r\n\n   \r\nDELETE FROM t WHERE a = 1;\r\n");
	EXPECT_THAT(Rows(), ElementsAre("two"));
}

TEST_F(SqlScriptTest, KeepsBytesAsTheyStand) {
	Run("UPDATE t SET b = 'Zo\xc3\xab; ''quoted'' -- %s' WHERE a = 1;");
	EXPECT_THAT(Rows(), ElementsAre("Zo\xc3\xab; 'quoted' -- %s", "two"));
}

TEST_F(SqlScriptTest, LeavesTheFileForAnEmptyScript) {
	const std::string before = ReadFile(file_);
	Run("");
	EXPECT_EQ(ReadFile(file_), before);
	EXPECT_THAT(Names(), ElementsAre("db", "script"));
}

TEST_F(SqlScriptTest, LeavesAnyFileForAnEmptyScript) {
	for (const std::string& content : {std::string(5000, 'x'), std::string("x"), std::string()}) {
		WriteFile(file_, content);
		Run("");
		EXPECT_EQ(ReadFile(file_), content);
	}
	WriteFile(file_ + "-journal", "no journal"); // Would be played back, or taken away, if SQLite looked at it.
	Run("");
	EXPECT_THAT(Names(), ElementsAre("db", "db-journal", "script"));
}

TEST_F(SqlScriptTest, NeedsAFileEvenForAnEmptyScript) {
	fs::remove(file_);
	EXPECT_EQ(Failure(""), "Fail apply sql cmd: unable to open database file");
	fs::create_directory(file_);
	EXPECT_EQ(Failure(""), "Fail apply sql cmd: unable to open database file");
	EXPECT_EQ(Failure("DELETE FROM t;"), "Fail apply sql cmd: unable to open database file");
}

TEST_F(SqlScriptTest, ChangesNothingWhenItsThirdLineFails) {
	EXPECT_TRUE(IsRefused("DELETE FROM t;\nINSERT INTO t VALUES(7, 'seven');\nINSERT INTO missing VALUES(1);\n",
	    "no such table: missing"));
	EXPECT_TRUE(IsRefused("CREATE TABLE u(x);\nDROP TABLE t;\nSELECT nonsense FROM;\n", "syntax error"));
	EXPECT_TRUE(IsRefused("DELETE FROM t WHERE a = 1;\n\nINSERT INTO t VALUES(2, 'again');", "UNIQUE constraint"));
}

TEST_F(SqlScriptTest, ChangesNothingAfterALargeChangeEither) {
	EXPECT_TRUE(IsRefused("WITH RECURSIVE n(i) AS (SELECT 10 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) "
	                      "INSERT INTO t SELECT i, zeroblob(500) FROM n;\nnonsense;",
	    "syntax error")); // More than the cache holds, so that pages were written.
}

TEST_F(SqlScriptTest, RefusesAStatementOverSeveralLines) {
	EXPECT_TRUE(IsRefused("DELETE FROM t\nWHERE a = 1;\n", "syntax error")); // Its first half alone is whole.
	EXPECT_TRUE(IsRefused("DELETE FROM t;\nINSERT INTO t VALUES(3, 'a\nb');", "unrecognized token"));
}

TEST_F(SqlScriptTest, RefusesAZeroByte) {
	EXPECT_TRUE(IsRefused(std::string("DELETE FROM t WHERE a = 1;\0DELETE FROM t;", 41), "zero byte in " + script_));
}

TEST_F(SqlScriptTest, NeedsAScriptThatCanBeRead) {
	const auto apply = [this] { ExecuteSqlScript(file_, script_); };
	EXPECT_EQ(MessageOf(apply), "Fail apply sql cmd: unable to read " + script_);
	fs::create_directory(script_);
	EXPECT_THAT(MessageOf(apply), StartsWith("Fail apply sql cmd: "));
	EXPECT_THAT(Rows(), ElementsAre("one", "two"));
}

TEST_F(SqlScriptTest, NeedsADatabase) {
	WriteFile(file_, std::string(5000, 'x'));
	EXPECT_TRUE(IsRefused("DELETE FROM t;", "not a database"));
	fs::remove(file_);
	EXPECT_EQ(Failure("CREATE TABLE t(a);"), "Fail apply sql cmd: unable to open database file");
	EXPECT_THAT(Names(), ElementsAre("script")); // None is created.
}

TEST_F(SqlScriptTest, DoesNotWaitForADatabaseInUse) {
	SQLite::Database other(file_, SQLite::OPEN_READWRITE);
	other.exec("BEGIN EXCLUSIVE");
	EXPECT_EQ(Failure("DELETE FROM t;"), "Fail apply sql cmd: database is locked");
	EXPECT_EQ(system_.polls, 0);
}

TEST_F(SqlScriptTest, ChangesTheFileItselfInWalMode) {
	Execute("PRAGMA journal_mode = WAL");
	Run("UPDATE t SET b = 'eins' WHERE a = 1;\n");
	EXPECT_THAT(Names(), ElementsAre("db", "script"));
	fs::rename(file_, directory_ / "moved"); // Away from whatever could belong to the old name.
	fs::rename(directory_ / "moved", file_);
	EXPECT_THAT(Rows(), ElementsAre("eins", "two"));
	EXPECT_EQ(ReadFile(file_).substr(18, 2), "\2\2"); // And stays in that mode.
}

TEST_F(SqlScriptTest, ChangesNothingWhenItFailsInWalMode) {
	Execute("PRAGMA journal_mode = WAL");
	EXPECT_TRUE(IsRefused("DELETE FROM t;\nINSERT INTO t VALUES(7, 'seven');\nnonsense;\n", "syntax error"));
}

TEST_F(SqlScriptTest, RefusesFilesThatWouldCountAsPartOfTheDatabase) {
	for (const char* suffix : {"-wal", "-shm", "-journal"}) {
		fs::create_symlink("nowhere", file_ + suffix);
		EXPECT_EQ(Failure("DELETE FROM t;"), "Fail apply sql cmd: unexpected file " + file_ + suffix);
		fs::remove(file_ + suffix);
	}
	EXPECT_THAT(Rows(), ElementsAre("one", "two"));
}

TEST_F(SqlScriptTest, FailsWhenTheContentStaysOutsideTheFile) {
	Execute("PRAGMA journal_mode = WAL");
	SQLite::Database other(file_, SQLite::OPEN_READWRITE);
	other.execAndGet("SELECT count(*) FROM t"); // In use, so that the script's connection is not the last one.
	fs::remove(file_ + "-wal");
	fs::remove(file_ + "-shm");
	EXPECT_EQ(Failure("DELETE FROM t;"), "Fail apply sql cmd: unexpected file " + file_ + "-wal");
}

TEST_F(SqlScriptTest, MayUseSavepointsTriggersAndOrdinaryPragmas) {
	Run("SAVEPOINT s; DELETE FROM t WHERE a = 1; ROLLBACK TO s; RELEASE s;\n"
	    "CREATE TRIGGER r AFTER INSERT ON t BEGIN UPDATE t SET b = 'seen' WHERE a = 1; END;\n"
	    "PRAGMA user_version = 7;\n"
	    "INSERT INTO t VALUES(3, upper('drei'));\n");
	EXPECT_THAT(Rows(), ElementsAre("seen", "two", "DREI"));
	EXPECT_EQ(SQLite::Database(file_).execAndGet("PRAGMA user_version").getInt(), 7);
}

struct Refused {
	const char* name;
	const char* statement;
	const char* why;
};

class RefusedStatementTest : public SqlScriptTest, public testing::WithParamInterface<Refused> {};

TEST_P(RefusedStatementTest, RollsTheScriptBack) {
	Execute("CREATE TABLE other(x)"); // Something that the statement could work on.
	const std::string statement = GetParam().statement;
	EXPECT_TRUE(IsRefused("DELETE FROM t;\nINSERT INTO t VALUES(7, 'seven');\n" + statement, GetParam().why));
	EXPECT_TRUE(IsRefused("DELETE FROM t; " + statement + "; INSERT INTO t VALUES(7, 'seven');\n", GetParam().why));
	EXPECT_THAT(Rows(), ElementsAre("one", "two"));
}

INSTANTIATE_TEST_SUITE_P(Statements, RefusedStatementTest,
    testing::Values(Refused{"Begin", "BEGIN", "not authorized"},
        Refused{"BeginImmediate", "begin immediate transaction", "not authorized"},
        Refused{"Commit", "COMMIT", "not authorized"}, Refused{"CommitSmall", "/* x */ commit", "not authorized"},
        Refused{"End", "END", "not authorized"}, Refused{"EndTransaction", "End Transaction", "not authorized"},
        Refused{"Rollback", "ROLLBACK", "not authorized"},
        Refused{"RollbackTransaction", "rollback transaction", "not authorized"},
        Refused{"Attach", "ATTACH 'other' AS o", "not authorized"},
        Refused{"AttachMemory", "attach database ':memory:' as o", "not authorized"},
        Refused{"Detach", "DETACH main", "not authorized"},
        Refused{"DetachDatabase", "detach database temp", "not authorized"},
        Refused{"LoadExtension", "SELECT load_extension('x')", "not authorized to use function: load_extension"},
        Refused{"LoadExtensionEntry", "SELECT LOAD_EXTENSION('x', 'y')", "not authorized to use function"},
        Refused{"LoadExtensionQuoted", "SELECT \"load_extension\"('x')", "not authorized to use function"},
        Refused{"LoadExtensionBrackets", "SELECT [Load_Extension] ( 'x' )", "not authorized to use function"},
        Refused{"LoadExtensionBackticks", "SELECT `load_extension`('x')", "not authorized to use function"},
        Refused{"LoadExtensionBelow", "UPDATE t SET b = (SELECT load_extension('x'))", "not authorized"},
        Refused{"Tokenizer", "SELECT fts3_tokenizer('simple')", "not authorized to use function: fts3_tokenizer"},
        Refused{"HeapLimit", "PRAGMA soft_heap_limit = 1000000000", "not authorized"},
        Refused{"WritableSchema", "PRAGMA writable_schema = ON", "not authorized"},
        Refused{"JournalMode", "PRAGMA journal_mode = OFF", "not authorized"},
        Refused{"MaxPageCount", "PRAGMA max_page_count = 1073741823", "not authorized"},
        Refused{"CacheSize", "PRAGMA cache_size = 1000000", "not authorized"},
        Refused{"TempStore", "PRAGMA temp_store = FILE", "not authorized"},
        Refused{"Optimize", "PRAGMA optimize", "not authorized"},
        Refused{"Csv", "CREATE VIRTUAL TABLE v USING csv(filename='/etc/passwd')", "not authorized"},
        Refused{"Dbstat", "CREATE VIRTUAL TABLE v USING dbstat", "not authorized"},
        Refused{"TemporaryDbstat", "CREATE VIRTUAL TABLE temp.v USING DBSTAT(main)", "not authorized"},
        Refused{"Zipfile", "CREATE VIRTUAL TABLE v USING zipfile('/etc/passwd')", "not authorized"},
        Refused{"Vocabulary", "CREATE VIRTUAL TABLE v USING fts5vocab('t', 'row')", "not authorized"},
        Refused{"TokenizerOfTwo", "SELECT fts3_tokenizer('x', x'0000000000000000')", "not authorized"},
        Refused{"Schema", "UPDATE sqlite_schema SET sql = NULL", "may not be modified"},
        Refused{"ShadowTable", "CREATE VIRTUAL TABLE v USING fts5(x); DELETE FROM v_data", "may not be modified"},
        Refused{"ShadowTable4", "CREATE VIRTUAL TABLE v USING fts4(x); DELETE FROM v_segdir", "may not be modified"},
        Refused{"JournalModeOfMain", "pragma main.Journal_Mode('memory')", "not authorized"},
        Refused{"JournalModeQuoted", "PRAGMA \"journal_mode\" = WAL", "not authorized"},
        Refused{"TempDirectory", "PRAGMA temp_store_directory = '/tmp'", "not authorized"},
        Refused{"DataDirectory", "PRAGMA data_store_directory = '/tmp'", "not authorized"},
        Refused{"Vacuum", "VACUUM", "cannot VACUUM from within a transaction"},
        Refused{"VacuumInto", "VACUUM INTO 'copy'", "cannot VACUUM from within a transaction"},
        Refused{"ConflictThatRollsBack", "INSERT OR ROLLBACK INTO t VALUES(7, 'x'),(7, 'y')", "UNIQUE constraint"},
        Refused{"RollbackWithoutSavepoint", "ROLLBACK TO nowhere", "no such savepoint"}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(SqlScriptTest, MayAskPragmasThatOnlyTell) {
	Run("PRAGMA integrity_check; PRAGMA foreign_key_check; PRAGMA foreign_key_check(t); PRAGMA table_info(t);\n"
	    "PRAGMA quick_check(1); PRAGMA page_count; PRAGMA user_version; PRAGMA main.page_size; PRAGMA journal_mode;\n"
	    "SELECT * FROM pragma_table_list; SELECT * FROM pragma_index_list('t'); PRAGMA encoding; PRAGMA data_version;\n"
	    "DELETE FROM t WHERE a = 1;\n");
	EXPECT_THAT(Rows(), ElementsAre("two"));
}

class VirtualTableScriptTest : public SqlScriptTest, public testing::WithParamInterface<const char*> {
protected:
	std::vector<std::string> Matches(const std::string& word) const {
		SQLite::Database database(file_, SQLite::OPEN_READONLY);
		SQLite::Statement query(database, "SELECT body FROM words WHERE words MATCH ? ORDER BY rowid");
		query.bind(1, word);
		std::vector<std::string> bodies;
		while (query.executeStep()) {
			bodies.push_back(query.getColumn(0).getString());
		}
		return bodies;
	}
	std::string module_ = GetParam();
};

TEST_P(VirtualTableScriptTest, ChangesFullTextTables) {
	Execute("CREATE VIRTUAL TABLE words USING " + module_ +
	        "(title, body);"
	        "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 400)"
	        "INSERT INTO words SELECT 'title', 'body ' || i FROM c;");
	Run("UPDATE words SET body = 'changed body' WHERE rowid = 7;\nDELETE FROM words WHERE rowid = 8;\n"
	    "INSERT INTO words(rowid, title, body) VALUES(1000, 'new', 'changed again');\n");
	EXPECT_THAT(Matches("changed"), ElementsAre("changed body", "changed again"));
	EXPECT_THAT(Matches("7"), ElementsAre());
	EXPECT_THAT(Matches("8"), ElementsAre());
	EXPECT_THAT(Matches("9"), ElementsAre("body 9"));
	Execute("INSERT INTO words(words) VALUES('integrity-check')");
	EXPECT_THAT(Names(), ElementsAre("db", "script"));
}

TEST_P(VirtualTableScriptTest, MakesAndRemovesFullTextTables) {
	Run("CREATE VIRTUAL TABLE words USING " + module_ +
	    "(title, body, tokenize=porter);\n"
	    "INSERT INTO words SELECT b, b || 's running' FROM t;\nINSERT INTO words(words) VALUES('optimize');\n");
	EXPECT_THAT(Matches("run"), ElementsAre("ones running", "twos running"));
	Run("DROP TABLE words;\n");
	EXPECT_EQ(
	    SQLite::Database(file_).execAndGet("SELECT count(*) FROM sqlite_schema WHERE name LIKE 'words%'").getInt(), 0);
}

TEST_P(VirtualTableScriptTest, ChangesNothingWhenItFails) {
	Execute("CREATE VIRTUAL TABLE words USING " + module_ + "(title, body); INSERT INTO words VALUES('a', 'b')");
	EXPECT_TRUE(IsRefused("DELETE FROM words;\nINSERT INTO words VALUES('c', 'd');\nnonsense;\n", "syntax error"));
	EXPECT_THAT(Matches("b"), ElementsAre("b"));
}

INSTANTIATE_TEST_SUITE_P(Modules, VirtualTableScriptTest, testing::Values("fts3", "fts4", "fts5", "FTS5"));

TEST_F(SqlScriptTest, MakesAndChangesRTrees) {
	Execute("CREATE VIRTUAL TABLE places USING rtree(id, x0, x1); INSERT INTO places VALUES(1, 0, 5), (2, 3, 4)");
	Run("UPDATE places SET x1 = 9 WHERE id = 1;\nDELETE FROM places WHERE id = 2;\n"
	    "CREATE VIRTUAL TABLE whole USING rtree_i32(id, x0, x1, +note);\nINSERT INTO whole VALUES(5, 6, 7, 'n');\n");
	SQLite::Database database(file_, SQLite::OPEN_READONLY);
	EXPECT_EQ(
	    database.execAndGet("SELECT group_concat(id || ':' || x1) FROM places WHERE x1 > 8").getString(), "1:9.0");
	EXPECT_EQ(database.execAndGet("SELECT note FROM whole WHERE x0 = 6").getString(), "n");
	EXPECT_EQ(database.execAndGet("SELECT rtreecheck('places')").getString(), "ok");
}

#define ENDLESS "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "

TEST_F(SqlScriptTest, EndsWhenItsTimeIsUp) {
	WriteFile(script_, "DELETE FROM t;\n" ENDLESS "SELECT max(i) FROM n;\n");
	const std::string before = ReadFile(file_);
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ(MessageOf([&] { ExecuteSqlScript(file_, script_, std::chrono::seconds(1)); }),
	    "Fail apply sql cmd: not finished after 1 seconds");
	EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
	EXPECT_EQ(ReadFile(file_), before);
}

/** What SQLite has of memory and which limits hold for it, which a script must leave as they were. */
struct Memory {
	std::int64_t used = sqlite3_memory_used();
	std::int64_t hard = sqlite3_hard_heap_limit64(-1);
	std::int64_t soft = sqlite3_soft_heap_limit64(-1);
};

class GreedyScriptTest : public SqlScriptTest, public testing::WithParamInterface<Refused> {};

TEST_P(GreedyScriptTest, FailsWithinItsLimits) {
	const Memory before;
	sqlite3_memory_highwater(1);
	EXPECT_TRUE(IsRefused("DELETE FROM t;\n" + std::string(GetParam().statement) + "\n", GetParam().why));
	EXPECT_LT(sqlite3_memory_highwater(0) - before.used, kMaxScriptMemoryBytes + (1 << 20));
	const Memory after;
	EXPECT_EQ(after.hard, before.hard);
	EXPECT_EQ(after.soft, before.soft);
}

const std::string kManyValues = [] {
	std::string statement = "SELECT 1";
	for (int i = 0; i < 80; ++i) {
		statement += ", randomblob(4000000)";
	}
	return statement + ";";
}();

INSTANTIATE_TEST_SUITE_P(Statements, GreedyScriptTest,
    testing::Values(Refused{"Randomblob", "INSERT INTO t VALUES(3, randomblob(2000000000));", "too big"},
        Refused{"Zeroblob", "INSERT INTO t VALUES(3, zeroblob(2000000000));", "too big"},
        Refused{"Replace", "INSERT INTO t VALUES(3, replace(hex(zeroblob(1000000)), '0', '0123456789'));", "too big"},
        Refused{"Concatenation",
            "WITH RECURSIVE n(i, x) AS (SELECT 1, 'x' UNION ALL SELECT i + 1, x || x FROM n) SELECT max(i) FROM n;",
            "too big"},
        Refused{"GroupConcat",
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) "
            "SELECT group_concat(zeroblob(1000)) FROM n;",
            "too big"},
        Refused{"ManyValues", kManyValues.c_str(), "more than 268435456 bytes of memory needed"},
        Refused{"Sorter", ENDLESS "SELECT i, randomblob(1000) AS r FROM n ORDER BY r;",
            "more than 268435456 bytes of memory needed"},
        Refused{"TemporaryTable", "CREATE TEMP TABLE x(y); " ENDLESS "INSERT INTO x SELECT randomblob(4000) FROM n;",
            "more than 268435456 bytes of memory needed"},
        Refused{
            "Growth", ENDLESS "INSERT INTO t SELECT i + 10, zeroblob(4000000) FROM n;", "database or disk is full"}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(SqlScriptTest, HasNothingWhereSqliteFormatsTooMuch) {
	const Memory before;
	sqlite3_memory_highwater(1);
	Run("UPDATE t SET b = printf('%.*c', 100000000, 'x') WHERE a = 1;\n"); // SQLite gives NULL and no error.
	EXPECT_THAT(Rows(), ElementsAre("", "two"));
	EXPECT_LT(sqlite3_memory_highwater(0) - before.used, 4 * kMaxScriptValueBytes);
}

TEST_F(SqlScriptTest, LeavesALowerLimitOfTheHost) {
	constexpr std::int64_t kOfTheHost = 64 << 20;
	const Memory before;
	sqlite3_hard_heap_limit64(kOfTheHost);
	EXPECT_TRUE(IsRefused(ENDLESS "SELECT i, randomblob(1000) AS r FROM n ORDER BY r;", "memory needed"));
	EXPECT_EQ(sqlite3_hard_heap_limit64(-1), kOfTheHost);
	sqlite3_hard_heap_limit64(before.hard);
	sqlite3_soft_heap_limit64(before.soft);
}

TEST_F(SqlScriptTest, CountsTheMemoryOfEachOfSeveralScripts) {
	const Memory before;
	{
		const ScriptMemoryLimit one;
		const std::int64_t limit = sqlite3_hard_heap_limit64(-1);
		EXPECT_EQ(limit, before.used + kMaxScriptMemoryBytes);
		{
			const ScriptMemoryLimit other;
			EXPECT_EQ(sqlite3_hard_heap_limit64(-1), limit + kMaxScriptMemoryBytes);
		}
		EXPECT_EQ(sqlite3_hard_heap_limit64(-1), limit);
	}
	EXPECT_EQ(Memory().hard, before.hard);
	EXPECT_EQ(Memory().soft, before.soft);
}

TEST_F(SqlScriptTest, HasLinesOfLimitedLength) {
	Run("UPDATE t SET b = X'" + std::string(2 * std::size_t{kMaxScriptValueBytes} - 100, 'a') + "' WHERE a = 1;\n");
	EXPECT_EQ(Rows().at(0).size(), kMaxScriptValueBytes - 50U);
	EXPECT_TRUE(IsRefused("DELETE FROM t;\n" + std::string(kMaxScriptLineBytes + 1, ' ') + "\n",
	    "line of more than 8454144 bytes in " + script_));
}

} // namespace
} // namespace tarn::dataupdate
