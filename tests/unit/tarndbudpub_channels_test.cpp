// Channels: documents that share packages, and versions that go from one to another.
#include "archive/signing_key.h"
#include "base/document_limit.h"
#include "diff_fixture.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/channels.h"

#include <algorithm>
#include <csignal>

namespace tarn::test {

namespace {

class Channels : public DiffPublisherTest {
protected:
	Channels() {
		options_.level = 1;
		promote_.repository = options_.repository;
		promote_.id = "db";
		promote_.from = "canary";
		promote_.keys = {PublicKey()};
	}

	/** Publishes the next version, with a tree of its own, to a channel. */
	int PublishTo(const std::string& channel) {
		options_.db_version = channel;
		Put("text", "version " + std::to_string(++version_));
		return Publish().data_version;
	}
	publisher::PromoteResult Promote() { return publisher::Promote(promote_, observer_); }
	std::string PromoteError() {
		try {
			Promote();
			return "";
		} catch (const std::exception& error) {
			return error.what();
		}
	}
	Json::Value EntryOf(const std::string& channel) const { return Document(channel)["db_list"]["db"]; }
	std::vector<std::string> ChainOf(const std::string& channel) const {
		return EntryOf(channel)["diff_files"].getMemberNames();
	}

	publisher::PromoteOptions promote_;

private:
	int version_ = 0;
};

TEST_F(Channels, GiveNoVersionTwiceAndContinueEachOthersChains) {
	EXPECT_EQ(PublishTo("1"), 1);
	EXPECT_EQ(PublishTo("1"), 2);
	EXPECT_EQ(PublishTo("canary"), 3);
	EXPECT_THAT(ChainOf("canary"), ElementsAre("2", "3"));
	EXPECT_EQ(EntryOf("1")["data_version"].asString(), "2") << "the default has not moved";
	EXPECT_EQ(PublishTo("1"), 4);
	EXPECT_THAT(ChainOf("1"), ElementsAre("2", "3", "4")) << "through the canary's version";
	EXPECT_EQ(EntryOf("canary")["data_version"].asString(), "3");
	EXPECT_THAT(warnings_, ElementsAre("The document canary is new, beside 1: devices that ask for it find db alone."));
	EXPECT_EQ(Followed(2, 4), PublishedTree());
}

TEST_F(Channels, KeepTheDiffsThatAnotherChannelNames) {
	PublishTo("1");
	PublishTo("1");
	options_.keep_diffs = 1;
	PublishTo("canary");
	PublishTo("canary");
	EXPECT_THAT(ChainOf("canary"), ElementsAre("4"));
	EXPECT_TRUE(fs::exists(Diff(2))) << "the default names it";
	EXPECT_FALSE(fs::exists(Diff(3)));
	std::vector<std::string> files = RepositoryFiles();
	Promote();
	files.erase(std::find(files.begin(), files.end(), "packages/db/db_d2.tarn"));
	EXPECT_EQ(RepositoryFiles(), files);
}

TEST_F(Channels, ShareNoChainAcrossFormats) {
	PublishTo("1");
	options_.format_version = "2";
	PublishTo("other");
	EXPECT_THAT(ChainOf("other"), IsEmpty());
	EXPECT_FALSE(fs::exists(Diff(2)));
}

TEST_F(Channels, PromoteTheWholeEntry) {
	PublishTo("1");
	PublishTo("canary");
	PublishTo("canary");
	const publisher::PromoteResult result = Promote();
	EXPECT_TRUE(result.is_changed);
	EXPECT_TRUE(result.has_chain);
	EXPECT_EQ(result.before, 1);
	EXPECT_EQ(result.data_version, 3);
	EXPECT_EQ(EntryOf("1"), EntryOf("canary"));
	warnings_.clear();
	EXPECT_FALSE(Promote().is_changed);
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(Channels, PromoteKeepsTheTargetsFlagAndOtherDatabases) {
	PublishTo("1");
	PublishTo("canary");
	Json::Value document = Document("1");
	document["db_list"]["db"]["deprecated"] = true;
	document["db_list"]["other"]["data_version"] = "7";
	document["extra"] = 1;
	WriteFile(options_.repository + "/database_info/1", document.toStyledString());
	Promote();
	EXPECT_EQ(EntryOf("1")["deprecated"], Json::Value(true));
	EXPECT_EQ(EntryOf("1")["data_version"].asString(), "2");
	EXPECT_EQ(Document("1")["db_list"]["other"]["data_version"].asString(), "7");
	EXPECT_EQ(Document("1")["extra"], Json::Value(1));
}

TEST_F(Channels, PromoteLeavesADocumentAloneThatDevicesWouldNotRead) {
	PublishTo("1");
	PublishTo("canary");
	Json::Value document = Document("1");
	document["extra"] = std::string(kLargestDocument, 'x');
	WriteFile(options_.repository + "/database_info/1", document.toStyledString());
	EXPECT_THAT(PromoteError(), HasSubstr(" are more than the 2097152 that devices read"));
	EXPECT_TRUE(Document("1") == document);
}

TEST_F(Channels, PromoteBeginsAChannel) {
	PublishTo("1");
	promote_.from = "1";
	promote_.to = "canary";
	const publisher::PromoteResult result = Promote();
	EXPECT_FALSE(result.before);
	EXPECT_FALSE(result.has_chain);
	EXPECT_EQ(EntryOf("canary"), EntryOf("1"));
	EXPECT_THAT(warnings_, ElementsAre("The document canary is new, beside 1: devices that ask for it find db alone."));
}

TEST_F(Channels, PromoteRefusesWhereDevicesWouldFindNothing) {
	PublishTo("1");
	PublishTo("canary");
	PublishTo("canary");
	const std::string document = ReadFile(options_.repository + "/database_info/1");
	fs::remove(Package(3));
	fs::remove(Diff(2));
	EXPECT_THAT(PromoteError(),
	    AllOf(StartsWith("Version 3 of db is not promoted: devices of 1 would find no chain of diff packages"),
	        HasSubstr(Diff(2) + " is missing"), HasSubstr(Package(3) + " is missing")));
	EXPECT_EQ(ReadFile(options_.repository + "/database_info/1"), document);
}

TEST_F(Channels, PromoteTakesOneOfTheTwoWaysAndWarnsOfTheOther) {
	PublishTo("1");
	PublishTo("canary");
	PublishTo("canary");
	const std::string diff = ReadFile(Diff(2));
	WriteFile(Diff(2), diff.substr(0, diff.size() - 1));
	warnings_.clear();
	EXPECT_FALSE(Promote().has_chain);
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("Devices of 1 take the full package: the package " + Diff(2))));
	warnings_.clear();
	PublishTo("canary");
	WriteFile(Package(4), "damaged");
	EXPECT_TRUE(Promote().has_chain);
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("New devices of 1 find no full package: the package " + Package(4))));
	PublishTo("canary");
	WriteFile(Package(5), "damaged");
	promote_.to = "new";
	EXPECT_THAT(PromoteError(), HasSubstr("new does not name db yet"));
}

TEST_F(Channels, TellWhatANewDocumentLacks) {
	for (const char* id : {"a", "b", "c", "d", "db"}) {
		options_.id = id;
		PublishTo("canary");
	}
	options_.id = "a";
	PublishTo("2");
	warnings_.clear();
	options_.id = "db";
	PublishTo("1");
	const std::string lacking = "find db alone, and not a, b, c and 1 more, which canary names.";
	EXPECT_THAT(warnings_, ElementsAre("The document 1 is new, beside 2, canary: devices that ask for it " + lacking));
	warnings_.clear();
	PublishTo("1");
	PublishTo("canary");
	EXPECT_THAT(warnings_, IsEmpty()) << "both are there";
	promote_.to = "canri";
	Promote();
	EXPECT_THAT(
	    warnings_, ElementsAre("The document canri is new, beside 1, 2, canary: devices that ask for it " + lacking));
	warnings_.clear();
	WriteFile(options_.repository + "/database_info/canary", "damaged");
	promote_.from = "1";
	promote_.to = "new";
	Promote();
	EXPECT_THAT(warnings_, Contains(HasSubstr("find db alone, and not a, which 2 names.")));
}

TEST_F(Channels, PromoteTellsAMistypedDocumentFromOneThatLacksTheDatabase) {
	PublishTo("1");
	PublishTo("canary");
	promote_.from = "canari";
	EXPECT_EQ(PromoteError(), "There is no document " + options_.repository +
	                              "/database_info/canari, only 1, canary, so there is nothing to promote.");
	promote_.from = "canary";
	promote_.id = "other";
	EXPECT_EQ(PromoteError(), "The document " + options_.repository +
	                              "/database_info/canary does not name other, so there is nothing to promote.");
}

TEST_F(Channels, PromoteSeesAGapAndAWrongSize) {
	PublishTo("1");
	PublishTo("canary");
	PublishTo("canary");
	Json::Value document = Document("canary");
	document["db_list"]["db"]["diff_files"]["2"]["file_size"] = 1;
	WriteFile(options_.repository + "/database_info/canary", document.toStyledString());
	fs::remove(Package(3));
	EXPECT_THAT(PromoteError(), HasSubstr("the document gives another size for the package " + Diff(2)));
	document["db_list"]["db"]["diff_files"].removeMember("2");
	WriteFile(options_.repository + "/database_info/canary", document.toStyledString());
	EXPECT_THAT(PromoteError(), HasSubstr("no diff package leads to version 2"));
}

TEST_F(Channels, PromoteBelievesNoOtherKey) {
	PublishTo("1");
	PublishTo("canary");
	archive::GenerateKeyFiles(directory_ / "other");
	promote_.keys = {directory_ / "other.pub"};
	EXPECT_THAT(PromoteError(), HasSubstr("has no signature by a trusted key"));
}

TEST_F(Channels, PromoteRefusesWhatIsOlderOfAnotherFormatOrNotThere) {
	PublishTo("canary");
	PublishTo("1");
	EXPECT_THAT(PromoteError(), HasSubstr("Version 1 of db, which canary names, is older than version 2, which 1"));
	options_.format_version = "2";
	PublishTo("canary");
	EXPECT_THAT(PromoteError(), HasSubstr("it is of format \"2\", and devices of 1 read format \"1\""));
	promote_.id = "other";
	EXPECT_THAT(PromoteError(), HasSubstr("does not name other, so there is nothing to promote"));
	promote_.to = "canary";
	EXPECT_THROW(Promote(), publisher::UsageError);
	promote_.to = "../1";
	EXPECT_THROW(Promote(), publisher::UsageError);
}

TEST_F(Channels, PromoteIsThereOrNotWhenItIsKilled) {
	PublishTo("1");
	PublishTo("canary");
	const std::string document = ReadFile(options_.repository + "/database_info/1");
	int killed = 0;
	for (int moment = 0; moment < 20; ++moment) {
		WriteFile(options_.repository + "/database_info/1", document);
		killed += IsKilledAfter(moment * 300, [this] { Promote(); }) ? 1 : 0;
		EXPECT_THAT(EntryOf("1")["data_version"].asString(), ::testing::AnyOf("1", "2")) << moment;
	}
	EXPECT_GT(killed, 0);
	EXPECT_EQ(PromoteError(), "");
	EXPECT_EQ(EntryOf("1"), EntryOf("canary"));
	EXPECT_THAT(RepositoryFiles(), Not(Contains(HasSubstr(".part"))));
}

} // namespace

} // namespace tarn::test
