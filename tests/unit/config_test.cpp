#include "dataupdate/config.h"
#include "dataupdate/file_lock.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "mocks.h"
#include "private_root.h"

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

namespace tarn::dataupdate {
namespace {

constexpr char kLock[] = "/run/data_update/config.lock";

class ConfigTest : public test::FixedPathsTest {
protected:
	ConfigTest() { config_.Init(Defaults(), Override()); }

	std::string Defaults() const { return directory_ / "defaults.conf"; }
	std::string Override() const { return directory_ / "sub/override.conf"; }
	void WriteDefaults(const std::string& content) const { WriteFile(Defaults(), content); }
	void WriteOverride(const std::string& content) const { WriteFile(Override(), content); }
	Json::Value Written() const { return IOUtils().ReadJson(Override()); }

	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
	Config config_{std::make_shared<IOUtils>()};
};

TEST_F(ConfigTest, ReadsTheOverrideBeforeTheDefault) {
	WriteDefaults(R"({"s": {"k": "default", "other": "there"}})");
	WriteOverride(R"({"s": {"k": "override"}})");
	EXPECT_EQ(config_.Get("s", "k"), "override");
	EXPECT_EQ(config_.Get("s", "other"), "there");
	WriteOverride(R"({"s": {}})");
	EXPECT_EQ(config_.Get("s", "k"), "default");
}

TEST_F(ConfigTest, IgnoresAnOverrideThatIsMissingOrUnreadable) {
	WriteDefaults(R"({"s": {"k": "default"}})");
	EXPECT_EQ(config_.Get("s", "k"), "default");
	WriteOverride("{\"s\": ");
	EXPECT_EQ(config_.Get("s", "k"), "default");
}

TEST_F(ConfigTest, SkipsAnOverrideOfTheWrongType) {
	WriteDefaults(R"({"s": {"flag": false, "number": 7, "text": "t"}})");
	WriteOverride(R"({"s": {"flag": "true", "number": "1000", "text": 1}})");
	EXPECT_FALSE(config_.GetAsBool("s", "flag"));
	EXPECT_EQ(config_.GetAsUInt64("s", "number"), 7U);
	EXPECT_EQ(config_.Get("s", "text"), "t");
}

TEST_F(ConfigTest, NamesSectionAndKeyThatAreNowhere) {
	WriteDefaults(R"({"config": {}})");
	EXPECT_EQ(MessageOf([&] { config_.Get("config", "cur_volume"); }), "section-key: 'config'-'cur_volume' not found");
	EXPECT_EQ(MessageOf([&] { config_.GetAsBool("none", "k"); }), "section-key: 'none'-'k' not found");
}

TEST_F(ConfigTest, PassesOnThatTheDefaultsCannotBeRead) {
	EXPECT_EQ(MessageOf([&] { config_.Get("s", "k"); }), "File not exist: " + Defaults());
	EXPECT_EQ(MessageOf([&] { Config(std::make_shared<IOUtils>()).Get("s", "k"); }), "File not exist: ");
}

TEST_F(ConfigTest, TakesNumbersUpTo32BitsOnly) {
	WriteDefaults(R"({"s": {"max": 4294967295, "zero": 0, "over": 4294967296, "negative": -1, "part": 1.5,
		"bool": true, "text": "1000"}})");
	EXPECT_EQ(config_.GetAsUInt64("s", "max"), 4294967295U);
	EXPECT_EQ(config_.GetAsUInt64("s", "zero"), 0U);
	for (const char* key : {"over", "negative", "part", "bool", "text"}) {
		EXPECT_EQ(MessageOf([&] { config_.GetAsUInt64("s", key); }), "Bad type conversion") << key;
	}
}

TEST_F(ConfigTest, NeverTakesOneTypeForAnother) {
	WriteDefaults(R"({"s": {"number": 1, "text": "true", "flag": true}})");
	EXPECT_TRUE(config_.GetAsBool("s", "flag"));
	EXPECT_EQ(MessageOf([&] { config_.GetAsBool("s", "number"); }), "Bad type conversion");
	EXPECT_EQ(MessageOf([&] { config_.GetAsBool("s", "text"); }), "Bad type conversion");
	EXPECT_EQ(MessageOf([&] { config_.Get("s", "number"); }), "Bad type conversion");
	EXPECT_EQ(MessageOf([&] { config_.Get("s", "flag"); }), "Bad type conversion");
}

TEST_F(ConfigTest, PassesOnWhatTheJsonLibraryThrows) {
	WriteDefaults(R"({"s": {"k": "default"}})");
	WriteOverride("[]");
	EXPECT_THROW(config_.Get("s", "k"), Json::LogicError);
}

TEST_F(ConfigTest, CachesNothing) {
	WriteDefaults(R"({"s": {"k": "one"}})");
	EXPECT_EQ(config_.Get("s", "k"), "one");
	WriteDefaults(R"({"s": {"k": "two"}})");
	EXPECT_EQ(config_.Get("s", "k"), "two");
}

TEST_F(ConfigTest, CreatesAnOverrideWithTheOneKeyThatIsSet) {
	config_.Set("s", "k", std::string("v"));
	Json::Value expected;
	expected["s"]["k"] = "v";
	EXPECT_EQ(Written(), expected);
}

TEST_F(ConfigTest, KeepsOtherKeysAndReplacesAnyType) {
	WriteOverride(R"({"a": {"x": 1, "y": "old"}, "b": {"z": true}})");
	config_.Set("a", "y", 4294967296UL);
	config_.Set("a", "new", "text");
	config_.Set("c", "flag", false);
	const Json::Value json = Written();
	EXPECT_EQ(json["a"]["x"], 1);
	EXPECT_EQ(json["a"]["y"].asUInt64(), 4294967296U);
	EXPECT_EQ(json["a"]["new"], "text");
	EXPECT_EQ(json["b"]["z"], true);
	EXPECT_TRUE(json["c"]["flag"].isBool());
	EXPECT_FALSE(config_.GetAsBool("c", "flag"));
}

TEST_F(ConfigTest, WritesAnUnreadableOverrideAnew) {
	WriteOverride("{\"a\": ");
	config_.Set("s", "k", true);
	EXPECT_THAT(Written().getMemberNames(), ElementsAre("s"));
}

TEST_F(ConfigTest, NeverWritesTheDefaults) {
	const std::string content = R"({"s": {"k": "default"}})";
	WriteDefaults(content);
	config_.Set("s", "k", "changed");
	EXPECT_EQ(test::ReadFile(Defaults()), content);
	EXPECT_EQ(config_.Get("s", "k"), "changed");
}

TEST_F(ConfigTest, NamesTheKeyThatCannotBeSet) {
	WriteFile(directory_ / "sub", "in the way");
	EXPECT_EQ(MessageOf([&] { config_.Set("s", "k", "v"); }), "Fail to set config s:k");
	EXPECT_NO_THROW(FileLock(kLock, 0)); // Not held any more.
}

TEST_F(ConfigTest, WritesUnderTheLockOfAllWriters) {
	const auto io = std::make_shared<StrictMock<test::MockIOUtils>>();
	Config config(io);
	config.Init("d", "o");
	EXPECT_CALL(*io, ReadJson("o")).WillOnce([](const std::string&) {
		EXPECT_EQ(MessageOf([] { FileLock(kLock, 0); }), std::string("Fail to lock ") + kLock);
		return Json::Value();
	});
	EXPECT_CALL(*io, WriteJson("o", _)).WillOnce([](const std::string&, const Json::Value&) {
		EXPECT_EQ(MessageOf([] { FileLock(kLock, 0); }), std::string("Fail to lock ") + kLock);
	});
	config.Set("s", "k", "v");
	EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(ConfigTest, GivesUpAfter600SecondsAndWritesNothing) {
	const FileLock other(kLock, 0);
	EXPECT_EQ(MessageOf([&] { config_.Set("s", "k", "v"); }), std::string("Fail to lock ") + kLock);
	EXPECT_EQ(system_.polls, 6000);
	EXPECT_FALSE(std::filesystem::exists(Override()));
}

TEST_F(ConfigTest, ReleasesTheLockWhenReadingThrowsSomethingElse) {
	const auto io = std::make_shared<StrictMock<test::MockIOUtils>>();
	Config config(io);
	EXPECT_CALL(*io, ReadJson("")).WillOnce(Throw(std::runtime_error("other")));
	EXPECT_THROW(config.Set("s", "k", "v"), std::runtime_error);
	EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(ConfigTest, ListsTheSectionsOfTheOverrideAlone) {
	WriteDefaults(R"({"b": {}, "c": {}})");
	EXPECT_THAT(config_.GetSections(), ElementsAre("b", "c"));
	WriteOverride(R"({"z": {}, "a": {}})");
	EXPECT_THAT(config_.GetSections(), ElementsAre("a", "z"));
	WriteOverride("{");
	EXPECT_THAT(config_.GetSections(), ElementsAre("b", "c"));
	WriteOverride("{}");
	EXPECT_THAT(config_.GetSections(), IsEmpty());
}

TEST_F(ConfigTest, PassesOnThatNeitherFileListsSections) {
	EXPECT_EQ(MessageOf([&] { config_.GetSections(); }), "File not exist: " + Defaults());
}

TEST_F(ConfigTest, OffersTheTypedReadsAndWritesThemselves) {
	config_.__Set<unsigned long>("s", "number", 5);
	config_.__Set<bool>("s", "flag", true);
	config_.__Set<std::string>("s", "text", "t");
	EXPECT_EQ(config_.__Get<unsigned long>("s", "number"), 5U);
	EXPECT_TRUE(config_.__Get<bool>("s", "flag"));
	EXPECT_EQ(config_.__Get<std::string>("s", "text"), "t");
}

} // namespace
} // namespace tarn::dataupdate
