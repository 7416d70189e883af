#include "base/json_scanner.h"
#include "base/unique_fd.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <string>
#include <vector>

namespace tarn {
namespace {

class JsonScannerTest : public testing::Test {
protected:
	/** Opens a document, which the scanner reads from now on. */
	int Open(const std::string& document) {
		test::WriteFile(directory_ / "document", document);
		file_ = UniqueFd(open((directory_ / "document").c_str(), O_RDONLY | O_CLOEXEC));
		return file_.Get();
	}
	std::string Text(const std::string& document) {
		JsonScanner scanner(Open(document));
		std::string text = scanner.Text();
		scanner.End();
		return text;
	}
	/** The members of an object of texts, each as "name=text". */
	std::vector<std::string> Members(const std::string& document) {
		JsonScanner scanner(Open(document));
		std::vector<std::string> members;
		scanner.Members([&](const std::string& name) { members.push_back(name + "=" + scanner.Text()); });
		scanner.End();
		return members;
	}

	test::TemporaryDirectory directory_;
	UniqueFd file_;
};

TEST_F(JsonScannerTest, ReadsTextsWithEveryEscape) {
	EXPECT_EQ(Text(R"( "plain" )"), "plain");
	EXPECT_EQ(Text(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
	EXPECT_EQ(Text(R"("\u0041\u00e9\u20AC\ud83d\ude00")"), "A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
	EXPECT_EQ(Text("\"\xff is kept\""), "\xff is kept");
}

TEST_F(JsonScannerTest, RefusesTextsThatAreNone) {
	for (const char* document : {"", "x", "\"", "\"a", R"("\x")", R"("\u12")", R"("\u123g")", R"("\u0000")",
	         R"("\ud83d")", R"("\ud83d\u0041")", R"("\ude00")", "\"\n\"", "\"a\" b"}) {
		EXPECT_THROW(Text(document), UnexpectedJson) << document;
	}
}

TEST_F(JsonScannerTest, ReadsNumbersAndTruthValues) {
	JsonScanner scanner(Open(" -12\n345678901234567890 true false 0 "));
	EXPECT_EQ(scanner.Integer(), -12);
	EXPECT_EQ(scanner.Integer(), 345678901234567890);
	EXPECT_TRUE(scanner.Boolean());
	EXPECT_FALSE(scanner.Boolean());
	EXPECT_EQ(scanner.Integer(), 0);
	scanner.End();
}

TEST_F(JsonScannerTest, RefusesOtherNumbersAndTruthValues) {
	for (const char* document : {"", "-", "x", "1234567890123456789", "1.5", "1e3"}) {
		JsonScanner scanner(Open(document));
		EXPECT_THROW(
		    {
			    scanner.Integer();
			    scanner.End();
		    },
		    UnexpectedJson)
		    << document;
	}
	for (const char* document : {"", "tru", "fals", "1", "null"}) {
		JsonScanner scanner(Open(document));
		EXPECT_THROW(scanner.Boolean(), UnexpectedJson) << document;
	}
}

TEST_F(JsonScannerTest, ReadsTheMembersOfObjectsInTheirOrder) {
	EXPECT_THAT(Members("{}"), testing::IsEmpty());
	EXPECT_THAT(Members("{\"b\" : \"1\",\r\n\t\"a\":\"2\"}"), testing::ElementsAre("b=1", "a=2"));
	for (const char* document : {"", "{", R"({"a")", R"({"a":})", R"({"a":"1")", R"({"a":"1",})", R"({"a" "1"})",
	         R"(["a"])", R"({/**/})", "{} {}"}) {
		EXPECT_THROW(Members(document), UnexpectedJson) << document;
	}
}

TEST_F(JsonScannerTest, ReadsDocumentsThatAreLongerThanItsBuffer) {
	std::string document = "{";
	constexpr int kMembers = 20000;
	for (int i = 0; i < kMembers; ++i) {
		document += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":\"text\\u00e9\"";
	}
	const std::vector<std::string> members = Members(document + "}");
	ASSERT_EQ(members.size(), kMembers);
	for (int i = 0; i < kMembers; ++i) {
		ASSERT_EQ(members[static_cast<std::size_t>(i)], std::to_string(i) + "=text\xc3\xa9");
	}
}

TEST_F(JsonScannerTest, TellsWhenTheFileCannotBeRead) {
	JsonScanner scanner(-1);
	EXPECT_THROW(scanner.Text(), UnexpectedJson);
}

} // namespace
} // namespace tarn
