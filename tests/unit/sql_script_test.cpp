#include "expect_error.h"
#include "fake_system.h"
#include "temporary_directory.h"

#include <dataupdate/sql_script.h>

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using test::MessageOf;
using test::ReadFile;
using test::WriteFile;
using testing::ElementsAre;
using testing::StartsWith;

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
        Refused{"JournalModeAsked", "PRAGMA journal_mode", "not authorized"},
        Refused{"JournalModeOfMain", "pragma main.Journal_Mode('memory')", "not authorized"},
        Refused{"JournalModeQuoted", "PRAGMA \"journal_mode\" = WAL", "not authorized"},
        Refused{"TempDirectory", "PRAGMA temp_store_directory = '/tmp'", "not authorized"},
        Refused{"DataDirectory", "PRAGMA data_store_directory = '/tmp'", "not authorized"},
        Refused{"Vacuum", "VACUUM", "cannot VACUUM from within a transaction"},
        Refused{"VacuumInto", "VACUUM INTO 'copy'", "cannot VACUUM from within a transaction"},
        Refused{"ConflictThatRollsBack", "INSERT OR ROLLBACK INTO t VALUES(7, 'x'),(7, 'y')", "UNIQUE constraint"},
        Refused{"RollbackWithoutSavepoint", "ROLLBACK TO nowhere", "no such savepoint"}),
    [](const auto& instance) { return std::string(instance.param.name); });

} // namespace
} // namespace tarn::dataupdate
