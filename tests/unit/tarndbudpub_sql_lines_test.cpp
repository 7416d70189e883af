// Scripts with one statement on each line.
#include "publisher/script_encoder.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>

namespace tarn::test {

namespace {

std::optional<std::string> Lines(const std::string& script) {
	std::istringstream input(script);
	std::ostringstream output;
	return publisher::WriteStatementPerLine(input, output) ? std::optional(output.str()) : std::nullopt;
}

TEST(SqlLines, KeepStatementsThatAreLinesAlready) {
	const std::string script = "DELETE FROM t WHERE id=2;\nINSERT INTO t(id,a) VALUES(9,'a;b');\n";
	EXPECT_EQ(Lines(script), script);
	EXPECT_EQ(Lines(""), "");
	EXPECT_EQ(Lines("\n\n"), "");
}

TEST(SqlLines, JoinAStatementThatSpansLines) {
	EXPECT_EQ(Lines("UPDATE t SET a='new'||X'0a'\n||'line', b=1\r\n WHERE id=1;\n"),
	    "UPDATE t SET a='new'||X'0a' ||'line', b=1   WHERE id=1;\n");
}

TEST(SqlLines, PutStatementsOfOneLineOnLinesOfTheirOwn) {
	EXPECT_EQ(Lines("DELETE FROM t; DELETE FROM u;"), "DELETE FROM t;\nDELETE FROM u;\n");
}

TEST(SqlLines, WriteABreakInATextAsAFunction) {
	EXPECT_EQ(Lines("INSERT INTO t VALUES('a\n\n;b''c\r\n');\n"),
	    "INSERT INTO t VALUES('a'||char(10)||''||char(10)||';b''c\r'||char(10)||'');\n");
}

TEST(SqlLines, SeeNoQuotesWithinQuotes) {
	const std::string script = "UPDATE \"a'b\" SET [c'd;]='\"', `e'`='[';\n";
	EXPECT_EQ(Lines(script), script);
}

TEST(SqlLines, LeaveOutTransactions) {
	EXPECT_EQ(Lines("BEGIN TRANSACTION;\nDELETE FROM t;\nCOMMIT;\n"), "DELETE FROM t;\n");
}

TEST(SqlLines, RefuseWhatCannotBeKept) {
	EXPECT_EQ(Lines("UPDATE \"a\nb\" SET c=1;\n"), std::nullopt);
	EXPECT_EQ(Lines(std::string("INSERT INTO t VALUES('a\0b');\n", 29)), std::nullopt);
	EXPECT_EQ(Lines("-- a comment; \nDELETE FROM t;\n"), std::nullopt);
	EXPECT_EQ(Lines("/* a comment */ DELETE FROM t;\n"), std::nullopt);
	EXPECT_EQ(Lines("DELETE FROM t"), std::nullopt);
	EXPECT_EQ(Lines("INSERT INTO t VALUES('a"), std::nullopt);
}

} // namespace

} // namespace tarn::test
