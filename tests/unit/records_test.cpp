#include "dataupdate/records.h"
#include "library_test.h"

#include <gmock/gmock.h>
#include <json/reader.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace tarn::dataupdate {
namespace {

using testing::Key;

Json::Value Parse(const std::string& text) {
	Json::Value value;
	std::string errors;
	const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
	if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
		throw std::invalid_argument(errors);
	}
	return value;
}

constexpr char kRemote[] =
    R"({"data_version": "12", "last_fetch_time": 1700000000, "deprecated": false, "download_link": "http://h/p"})";
constexpr char kStatus[] =
    R"({"data_version": "12", "last_fetch_time": 5, "file_statuses": {"b": {"sha384_digest": "B"}, "a": {"sha384_digest": "A"}}})";

std::string WhatRemoteSays(const char* member, const Json::Value& value) {
	Json::Value json = Parse(kRemote);
	json[member] = value;
	return MessageOf([&] { RemoteInfo::FromJson(json); });
}

std::string WhatStatusSays(const char* member, const Json::Value& value) {
	Json::Value json = Parse(kStatus);
	json[member] = value;
	return MessageOf([&] { DatabaseStatus::FromJson(json); });
}

TEST(RemoteInfoTest, ReadsItsFourMembers) {
	const RemoteInfo info = RemoteInfo::FromJson(Parse(kRemote));
	EXPECT_EQ(info.data_version, 12);
	EXPECT_EQ(info.last_fetch_time, 1700000000);
	EXPECT_FALSE(info.deprecated);
	EXPECT_EQ(info.download_link, "http://h/p");
}

TEST(RemoteInfoTest, WritesTheVersionAsAStringAndTheTimeAsANumber) {
	const Json::Value json = RemoteInfo::ToJson(RemoteInfo(-3, 7, true, "link"));
	EXPECT_EQ(
	    json, Parse(R"({"data_version": "-3", "last_fetch_time": 7, "deprecated": true, "download_link": "link"})"));
	EXPECT_EQ(RemoteInfo::FromJson(json), RemoteInfo(-3, 7, true, "link"));
}

TEST(RemoteInfoTest, RefusesMembersThatAreMissingOrHaveTheWrongType) {
	const std::string message = "Invalid json object for RemoteInfo";
	EXPECT_EQ(WhatRemoteSays("data_version", 12), message);
	EXPECT_EQ(WhatRemoteSays("last_fetch_time", "5"), message);
	EXPECT_EQ(WhatRemoteSays("deprecated", Json::Value()), message);
	EXPECT_EQ(WhatRemoteSays("deprecated", 0), message);
	EXPECT_EQ(WhatRemoteSays("download_link", Json::Value()), message);
	EXPECT_EQ(MessageOf([] { RemoteInfo::FromJson(Json::Value()); }), message);
}

TEST(RemoteInfoTest, ReadsVersionsAsTheStandardLibraryDoes) {
	Json::Value json = Parse(kRemote);
	json["data_version"] = " 42abc";
	EXPECT_EQ(RemoteInfo::FromJson(json).data_version, 42);
	json["data_version"] = "abc";
	EXPECT_THROW(RemoteInfo::FromJson(json), std::invalid_argument);
	json["data_version"] = "99999999999";
	EXPECT_THROW(RemoteInfo::FromJson(json), std::out_of_range);
}

TEST(RemoteInfoTest, ChecksEveryTypeBeforeItReadsTheVersion) {
	EXPECT_EQ(WhatRemoteSays("download_link", 1), "Invalid json object for RemoteInfo");
	Json::Value json = Parse(kRemote);
	json["data_version"] = "abc";
	json["download_link"] = 1;
	EXPECT_EQ(MessageOf([&] { RemoteInfo::FromJson(json); }), "Invalid json object for RemoteInfo");
}

TEST(RemoteInfoTest, IsEqualWhenAllFourMembersAre) {
	const RemoteInfo info(1, 2, false, "a");
	EXPECT_TRUE(info == RemoteInfo(1, 2, false, "a"));
	EXPECT_FALSE(info == RemoteInfo(2, 2, false, "a"));
	EXPECT_FALSE(info == RemoteInfo(1, 3, false, "a"));
	EXPECT_FALSE(info == RemoteInfo(1, 2, true, "a"));
	EXPECT_FALSE(info == RemoteInfo(1, 2, false, "b"));
}

TEST(DiffInfoTest, ReadsItsTwoMembers) {
	EXPECT_EQ(DiffInfo::FromJson(Parse(R"({"download_link": "d", "file_size": 9})")), DiffInfo("d", 9));
}

TEST(DiffInfoTest, RefusesMembersThatAreMissingOrHaveTheWrongType) {
	const std::string message = "Invalid json object for DiffInfo";
	EXPECT_EQ(MessageOf([] { DiffInfo::FromJson(Parse(R"({"download_link": 1, "file_size": 9})")); }), message);
	EXPECT_EQ(MessageOf([] { DiffInfo::FromJson(Parse(R"({"download_link": "d", "file_size": "9"})")); }), message);
	EXPECT_EQ(MessageOf([] { DiffInfo::FromJson(Parse(R"({"download_link": "d"})")); }), message);
}

TEST(DiffInfoTest, IsEqualWhenLinkAndSizeAre) {
	EXPECT_TRUE(DiffInfo("a", 1) == DiffInfo("a", 1));
	EXPECT_FALSE(DiffInfo("a", 1) == DiffInfo("b", 1));
	EXPECT_FALSE(DiffInfo("a", 1) == DiffInfo("a", 2));
}

TEST(DiffInfoTest, KeysABatchByTheNumberInTheMembersName) {
	const auto infos = DiffInfo::BatchFromJson(
	    Parse(R"({"10": {"download_link": "ten", "file_size": 1}, "9": {"download_link": "nine", "file_size": 2}})"));
	EXPECT_THAT(infos, ElementsAre(Key(9), Key(10)));
	EXPECT_EQ(infos.at(10), DiffInfo("ten", 1));
}

TEST(DiffInfoTest, KeepsTheFirstOfTwoNamesForOneNumber) {
	const auto infos = DiffInfo::BatchFromJson(Parse(
	    R"({"7": {"download_link": "seven", "file_size": 1}, "07": {"download_link": "zero seven", "file_size": 2}})"));
	ASSERT_THAT(infos, ElementsAre(Key(7)));
	EXPECT_EQ(infos.at(7).download_link, "zero seven"); // Members come sorted by name.
}

TEST(DiffInfoTest, TakesAMissingBatchForAnEmptyOne) {
	EXPECT_TRUE(DiffInfo::BatchFromJson(Json::Value()).empty());
	EXPECT_TRUE(DiffInfo::BatchFromJson(Json::Value(Json::objectValue)).empty());
}

TEST(DiffInfoTest, JudgesTheValueBeforeTheName) {
	EXPECT_EQ(MessageOf([] { DiffInfo::BatchFromJson(Parse(R"({"x": {"file_size": 1}})")); }),
	    "Invalid json object for DiffInfo");
	EXPECT_THROW(
	    DiffInfo::BatchFromJson(Parse(R"({"x": {"download_link": "d", "file_size": 1}})")), std::invalid_argument);
}

TEST(FileStatusTest, ReadsAndWritesTheDigest) {
	EXPECT_EQ(FileStatus::FromJson(Parse(R"({"sha384_digest": "ab"})")).sha384_digest, "ab");
	EXPECT_EQ(FileStatus::ToJson(FileStatus("ab")), Parse(R"({"sha384_digest": "ab"})"));
	EXPECT_EQ(MessageOf([] { FileStatus::FromJson(Parse(R"({"sha384_digest": 1})")); }),
	    "Invalid json object for FileStatus");
}

TEST(FileStatusTest, ComparesDigestsByteForByte) {
	EXPECT_TRUE(FileStatus("ab") == FileStatus("ab"));
	EXPECT_FALSE(FileStatus("ab") == FileStatus("AB"));
	EXPECT_TRUE(FileStatus("ab") != FileStatus("abc"));
	EXPECT_FALSE(FileStatus("ab") != FileStatus("ab"));
}

TEST(FileStatusTest, ReadsABatchFromAnObjectOnly) {
	const auto statuses =
	    FileStatus::BatchFromJson(Parse(R"({"b": {"sha384_digest": "B"}, "a": {"sha384_digest": "A"}})"));
	EXPECT_THAT(statuses, ElementsAre(Key("a"), Key("b")));
	EXPECT_EQ(statuses.at("b").sha384_digest, "B");
	EXPECT_EQ(MessageOf([] { FileStatus::BatchFromJson(Parse("[]")); }), "Invalid json object for FileStatuses");
	EXPECT_EQ(MessageOf([] { FileStatus::BatchFromJson(Json::Value()); }), "Invalid json object for FileStatuses");
	EXPECT_EQ(
	    MessageOf([] { FileStatus::BatchFromJson(Parse(R"({"a": {}})")); }), "Invalid json object for FileStatus");
}

TEST(FileStatusTest, WritesABatchAsAnObjectEvenWhenEmpty) {
	EXPECT_EQ(FileStatus::BatchToJson({}), Json::Value(Json::objectValue));
	EXPECT_EQ(FileStatus::BatchToJson({{"/v/a", FileStatus("A")}}), Parse(R"({"/v/a": {"sha384_digest": "A"}})"));
}

TEST(DatabaseStatusTest, SaysThatNothingIsInstalledAtFirst) {
	const DatabaseStatus status;
	EXPECT_EQ(status.data_version, -1);
	EXPECT_EQ(status.last_fetch_time, 0);
	EXPECT_TRUE(status.file_statuses.empty());
}

TEST(DatabaseStatusTest, ReadsBackWhatItWrote) {
	const Json::Value json = Parse(kStatus);
	const DatabaseStatus status = DatabaseStatus::FromJson(json);
	EXPECT_EQ(status.data_version, 12);
	EXPECT_EQ(status.last_fetch_time, 5);
	EXPECT_THAT(status.file_statuses, ElementsAre(Key("a"), Key("b")));
	EXPECT_EQ(DatabaseStatus::ToJson(status), json);
}

TEST(DatabaseStatusTest, WritesAnEmptyFileListAsAnObject) {
	const Json::Value json = DatabaseStatus::ToJson(DatabaseStatus());
	EXPECT_EQ(json["file_statuses"], Json::Value(Json::objectValue));
	EXPECT_TRUE(DatabaseStatus::FromJson(json) == DatabaseStatus());
}

TEST(DatabaseStatusTest, RefusesMembersThatAreMissingOrHaveTheWrongType) {
	const std::string message = "Invalid json object for DatabaseStatus";
	EXPECT_EQ(WhatStatusSays("data_version", 12), message);
	EXPECT_EQ(WhatStatusSays("last_fetch_time", "5"), message);
	EXPECT_EQ(WhatStatusSays("file_statuses", Json::Value(Json::arrayValue)), message);
	EXPECT_EQ(WhatStatusSays("file_statuses", Json::Value()), message);
	EXPECT_EQ(WhatStatusSays("file_statuses", Parse(R"({"a": {}})")), "Invalid json object for FileStatus");
}

TEST(DatabaseStatusTest, PassesOnThatAVersionIsNoNumber) {
	Json::Value json = Parse(kStatus);
	json["data_version"] = "";
	EXPECT_THROW(DatabaseStatus::FromJson(json), std::invalid_argument);
}

TEST(DatabaseStatusTest, IsEqualWhenVersionTimeAndFilesAre) {
	const DatabaseStatus status = DatabaseStatus::FromJson(Parse(kStatus));
	DatabaseStatus other = status;
	EXPECT_TRUE(status == other);
	EXPECT_FALSE(status != other);
	other.last_fetch_time = 6;
	EXPECT_TRUE(status != other);
	other = status;
	other.data_version = 13;
	EXPECT_FALSE(status == other);
	other = status;
	other.file_statuses.erase("b");
	EXPECT_FALSE(status == other);
	other.file_statuses.emplace("c", FileStatus("B"));
	EXPECT_FALSE(status == other);
}

} // namespace
} // namespace tarn::dataupdate
