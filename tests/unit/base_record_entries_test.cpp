#include "base/record_entries.h"
#include "corpus.h"
#include "entry.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::Optional;

class RecordEntriesTest : public testing::Test {
protected:
	/** Reads a record whose entries are in "files". */
	bool Read(const std::string& record) {
		test::WriteFile(path_, record);
		return ReadRecordEntries(path_, form_);
	}
	/** The entries, each as name and JSON, and at the end what remains of the record. */
	std::optional<std::vector<std::string>> Parts(const std::string& record) {
		parts_.clear();
		return Read(record) ? std::optional(parts_) : std::nullopt;
	}
	/** What a text of JSON, in its quotes, is read as: as the name of an entry and as a value alike. */
	std::optional<std::string> Text(const std::string& text) {
		std::vector<std::string> texts;
		form_.take_entry = [&](const std::string& name, const json& entry) {
			texts = {name, entry.at("v").get<std::string>()};
		};
		const bool is_read = Read(R"({"files":{)" + text + R"(:{"v":)" + text + "}}}");
		EXPECT_TRUE(!is_read || texts.at(0) == texts.at(1)) << text;
		return is_read ? std::optional(texts.at(0)) : std::nullopt;
	}

	test::TemporaryDirectory directory_;
	const std::string path_ = directory_ / "record";
	std::vector<std::string> parts_;
	RecordForm form_ = {"files",
	    [this](const std::string& name, const json& entry) { parts_.push_back(name + "=" + entry.dump()); },
	    [this](const json& record) { parts_.push_back(record.dump()); }};
};

TEST_F(RecordEntriesTest, AreTakenInTheirOrderAndTheRestOfTheRecordBehindThem) {
	EXPECT_THAT(Parts(R"({"files":{}})"), Optional(ElementsAre(R"({"files":{}})")));
	EXPECT_THAT(Parts("{\"z\" : -1,\r\n\t\"files\":{\"b\":{\"x\":1,\"y\":true},\"a\":{},\"\":{}} , \"a\":\"t\"}\n"),
	    Optional(ElementsAre(R"(b={"x":1,"y":true})", "a={}", "={}", R"({"a":"t","files":{},"z":-1})")));
	EXPECT_THAT(Parts(R"({"files":{"a":{"x":1},"a":{"x":2}}})"),
	    Optional(ElementsAre(R"(a={"x":1})", R"(a={"x":2})", R"({"files":{}})")));
}

TEST_F(RecordEntriesTest, AreRefusedInEveryOtherForm) {
	for (const char* record : {"", "1", "[]", "{}", "{", R"({"files":1})", R"({"files":[]})", R"({"files":{"a":1}})",
	         R"({"files":{"a":[]}})", R"({"files":{"a":null}})", R"({"files":{"a":{"x":{}}}})",
	         R"({"files":{"a":{"x":[1]}}})", R"({"files":{},"more":{}})", R"({"more":{"a":{}}})",
	         R"({"files":{},"more":[]})", R"({"files":{},"files":{}})", R"({"files":{},"a":1,"a":1})",
	         R"({"files":{"a":{"x":1,"x":1}}})", R"({"files":{}} {})", R"({"files":{}},)", R"({"files":{},})",
	         R"({"files":{}/**/})", R"({"files":{"a" {}}})", R"({"files":{a:{}}})", R"({"files":{"a":{"x":tru}}})",
	         R"({"files":{"a":{"x":01}}})", R"({"files":{"a":{"x":1e999}}})", R"({"files":{"a":{"x":-}}})",
	         R"({"files":{"a":{"1":1,"2":2,"3":3,"4":4,"5":5,"6":6,"7":7,"8":8,"9":9}}})"}) {
		EXPECT_FALSE(Read(record)) << record;
	}
	EXPECT_FALSE(Read(R"({"files":{}})" + std::string(1, '\0')));
	EXPECT_FALSE(Read(R"({"files":{}})" + std::string(1, '\0') + "more"));
	const std::string deep(1000000, '[');
	EXPECT_FALSE(Read(R"({"files":{"a":)" + deep));
	std::string objects;
	for (int i = 0; i < 100000; ++i) {
		objects += R"({"files":)";
	}
	EXPECT_FALSE(Read(objects));
}

TEST_F(RecordEntriesTest, HaveTextsWithEveryEscape) {
	EXPECT_EQ(Text(R"( "plain" )"), "plain");
	EXPECT_EQ(Text(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
	EXPECT_EQ(Text(R"("\u0041\u00e9\u20AC\ud83d\ude00")"), "A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
	EXPECT_EQ(Text(R"("a\u0000b")"), std::string("a\0b", 3));
}

TEST_F(RecordEntriesTest, AreRefusedWithTextsThatAreNone) {
	for (const char* text :
	    {"x", "\"", "\"a", R"("\x")", R"("\u12")", R"("\u123g")", R"("\ud83d")", R"("\ud83d\u0041")", R"("\ude00")",
	        "\"\n\"", "\"\xff\"", "\"\xc0\xaf\"", "\"\xed\xa0\x80\"", "\"cut\xc3\"", "\"a\" b"}) {
		EXPECT_EQ(Text(text), std::nullopt) << text;
	}
	EXPECT_EQ(Text(std::string("\"a\0b\"", 5)), std::nullopt);
}

TEST_F(RecordEntriesTest, AreReadFromRecordsThatAreLongerThanAnyBuffer) {
	std::string record = R"({"files":{)";
	constexpr int kEntries = 20000;
	for (int i = 0; i < kEntries; ++i) {
		record += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":{\"text\":\"\\u00e9\"}";
	}
	const auto parts = Parts(record + "}}");
	ASSERT_TRUE(parts);
	ASSERT_EQ(parts->size(), kEntries + 1);
	for (int i = 0; i < kEntries; ++i) {
		ASSERT_EQ(parts->at(static_cast<std::size_t>(i)), std::to_string(i) + "={\"text\":\"\xc3\xa9\"}");
	}
	EXPECT_EQ(parts->back(), R"({"files":{}})") << "no entry is kept";
}

TEST_F(RecordEntriesTest, EndWhereWhoTakesThemExpectsAnother) {
	const std::string record = R"({"files":{"a":{},"b":{}}})";
	form_.take_entry = [this](const std::string& name, const json& entry) {
		parts_.push_back(name);
		ExpectInRecord(entry.size() == 1);
	};
	EXPECT_FALSE(Read(record));
	EXPECT_THAT(parts_, ElementsAre("a"));
	form_.take_entry = [](const std::string& /*name*/, const json& entry) { entry.at("missing"); };
	EXPECT_FALSE(Read(record));
	form_.take_entry = [](const std::string& /*name*/, const json& /*entry*/) { throw std::bad_alloc(); };
	EXPECT_THROW(Read(record), std::bad_alloc);
	form_.take_entry = [](const std::string& /*name*/, const json& /*entry*/) {};
	form_.take_record = [](const json& /*record*/) { throw std::out_of_range("no number"); };
	EXPECT_FALSE(Read(record));
}

TEST_F(RecordEntriesTest, AreNotReadFromWhatIsNoFile) {
	EXPECT_FALSE(ReadRecordEntries(directory_ / "missing", form_));
	EXPECT_FALSE(ReadRecordEntries(directory_.Path(), form_));
}

TEST(RecordCorpus, BreaksNoPromise) {
	test::ExpectNoBrokenPromise(TARN_RECORD_CORPUS, LLVMFuzzerTestOneInput, 10);
}

} // namespace
} // namespace tarn
