// Values in scripts: SQLite reads exactly what was written, whole or as an edit of the former value.
#include "publisher/common/publish_error.h"
#include "publisher/sqlite/sql_text.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

namespace tarn::test {

namespace {

using publisher::Literal;
using publisher::NameInScript;
using publisher::NewValue;
using publisher::SqlValue;
using ::testing::HasSubstr;
using ::testing::Not;

SqlValue Text(const std::string& text) {
	return {SQLITE_TEXT, 0, text};
}

SqlValue Blob(const std::string& bytes) {
	return {SQLITE_BLOB, 0, bytes};
}

SqlValue Real(double real) {
	SqlValue value = {SQLITE_FLOAT, 0, ""};
	std::memcpy(&value.integer, &real, sizeof(real));
	return value;
}

class SqlText : public ::testing::Test {
protected:
	/** What SQLite makes of an expression on a column "c" with a value. */
	SqlValue Evaluated(const std::string& expression, const SqlValue& before = {}) {
		EXPECT_EQ(expression.find('\n'), std::string::npos);
		EXPECT_EQ(expression.find('\0'), std::string::npos);
		SQLite::Statement query(database_, "SELECT " + expression + " FROM (SELECT ? AS c)");
		if (before.type == SQLITE_TEXT) {
			query.bind(1, before.bytes);
		} else {
			query.bind(1, before.bytes.data(), static_cast<int>(before.bytes.size()));
		}
		query.executeStep();
		return publisher::ValueOf(query.getColumn(0));
	}
	void ExpectExact(const SqlValue& value) { EXPECT_TRUE(Evaluated(Literal(value)) == value) << Literal(value); }
	void ExpectEdit(const SqlValue& before, const SqlValue& after) {
		const std::string edit = NewValue("c", before, after);
		EXPECT_TRUE(Evaluated(edit, before) == after) << edit;
	}

	SQLite::Database database_{":memory:", SQLite::OPEN_READWRITE};
	std::mt19937_64 random_{5};
};

TEST_F(SqlText, KeepsEveryValue) {
	for (const std::int64_t number : {std::int64_t{0}, std::int64_t{9007199254740993},
	         std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
		ExpectExact({SQLITE_INTEGER, number, ""});
	}
	ExpectExact({});
	for (const std::string& bytes : {std::string(), std::string("it's"), std::string("a\nb\r\n'\n"),
	         std::string("a\0b", 3), std::string("\xff\xfe\n"), std::string("|~^`@#$%&*_=+?!<>{}[]\\\"\n")}) {
		ExpectExact(Text(bytes));
		ExpectExact(Blob(bytes));
	}
	ExpectExact(Text(std::string(5000, '\n'))); // as many functions would be too deep for SQLite
}

TEST_F(SqlText, KeepsRealsToTheLastBit) {
	for (const double real : {0.5, 1.0, -3.0, 0.1 + 0.2, 1 / 3.0, -1e15 / 7, 1e300, 9007199254740993.0,
	         std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()}) {
		ExpectExact(Real(real));
	}
	for (int i = 0; i < 2000; ++i) {
		const double size = std::ldexp(1.0, static_cast<int>(random_() % 70) - 20);
		ExpectExact(Real(std::uniform_real_distribution<>(-size, size)(random_)));
	}
	for (int i = 0; i < 2000; ++i) {
		std::uint64_t bits = random_() & ~(std::uint64_t{1} << 62U);
		bits |= i % 2 == 0 ? 0 : std::uint64_t{1} << 62U;
		double real = 0;
		std::memcpy(&real, &bits, sizeof real);
		if (std::isfinite(real)) {
			ExpectExact(Real(real));
		}
	}
	for (const double real : {5e-324, -2.2e-308, 1.7976931348623157e308, 1e17, 123456789012345e4, 1e22, 1e-22, 1e-23}) {
		ExpectExact(Real(real));
	}
}

TEST_F(SqlText, WritesNoDecimalsThatProcessorsReadInDifferentWays) {
	const std::string power = "4611686018427387904.0";
	EXPECT_EQ(Literal(Real(1.25)), "1.25");
	EXPECT_EQ(Literal(Real(1e17)), "1e+17");
	EXPECT_EQ(Literal(Real(1e-22)), "1e-22");
	EXPECT_EQ(Literal(Real(0x1.8p63)), "6755399441055744*2048.0") << "of a value that 15 digits cannot tell";
	EXPECT_EQ(Literal(Real(-0x1.0000000000001p-20)), "-4503599627370497/" + power + "/1024.0");
	EXPECT_EQ(Literal(Real(9007199254740991.0)), "9007199254740991.0");
	EXPECT_EQ(Literal(Real(9007199254740992.0)), "4503599627370496*2.0");
	EXPECT_EQ(Literal(Real(1 / 3.0)), "6004799503160661/18014398509481984.0");
}

TEST_F(SqlText, EditsLongValues) {
	const std::string text = std::string(100, 'x') + "Größe" + std::string(100, 'y');
	EXPECT_EQ(NewValue("c", Text(text), Text(text + "z")), "c||'z'");
	EXPECT_EQ(NewValue("c", Text(text), Text("z" + text)), "'z'||c");
	EXPECT_EQ(NewValue("c", Text(text), Text(text.substr(0, 50))), "substr(c,1,50)");
	EXPECT_THAT(NewValue("c", Text("short"), Text("shore")), Not(HasSubstr("substr")));
	EXPECT_THAT(NewValue("c", Text(text + '\0'), Text(text + "z")), Not(HasSubstr("substr")));
	EXPECT_THAT(NewValue("c", Blob(text), Text(text)), Not(HasSubstr("substr")));
}

TEST_F(SqlText, MakesTheRightValueByEveryEdit) {
	const std::array<std::string, 6> parts = {"a", "\n", "'", "ü", "東", "\xf0\x9f\x98\x80"};
	const auto some = [&](std::size_t most) {
		std::string text;
		for (std::size_t i = random_() % (most + 1); i > 0; --i) {
			text += parts.at(random_() % parts.size());
		}
		return text;
	};
	for (int i = 0; i < 500; ++i) {
		const std::string begin = some(60);
		const std::string end = some(60);
		const std::string before = begin + some(3) + end;
		const std::string after = begin + some(3) + end;
		ExpectEdit(Text(before), Text(after));
		ExpectEdit(Blob(before + '\0'), Blob(after + '\0'));
		ExpectEdit(Blob('\0' + before), Blob('\0' + after + "\xff"));
	}
}

TEST_F(SqlText, QuotesNamesWhereSqlNeedsIt) {
	EXPECT_EQ(NameInScript("name_2"), "name_2");
	EXPECT_EQ(NameInScript("order"), "\"order\"");
	EXPECT_EQ(NameInScript("2nd"), "\"2nd\"");
	EXPECT_EQ(NameInScript("a \"b\""), "\"a \"\"b\"\"\"");
	EXPECT_THROW(NameInScript("a\nb"), publisher::PublishError);
}

} // namespace

} // namespace tarn::test
