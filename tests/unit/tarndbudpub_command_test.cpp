// The publisher's commands: arguments, exit codes, what they print and where.
#include "diff_fixture.h"
#include "publisher/commands/command_line.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/option_checks.h"
#include "publisher_fixture.h"

#include <algorithm>
#include <sstream>

namespace tarn::test {

namespace {

class Command : public PublisherTest {
protected:
	Command() { Put("file", "content"); }

	int Run(const std::vector<std::string>& arguments) {
		out_.str("");
		err_.str("");
		return publisher::RunCommandLine(arguments, out_, err_, terminal_);
	}
	std::vector<std::string> PublishArguments(const std::vector<std::string>& more = {}) const {
		std::vector<std::string> arguments = {"publish", options_.tree, "--repo", options_.repository, "--id", "db",
		    "--key", options_.key_file, "--url", "http://host"};
		arguments.insert(arguments.end(), more.begin(), more.end());
		return arguments;
	}
	void ExpectFailure(int code, const std::string& sentence) {
		const std::string error = err_.str();
		EXPECT_THAT(error, HasSubstr(sentence));
		EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
		EXPECT_THAT(error, StartsWith("tarndbudpub: "));
		EXPECT_THAT(out_.str(), IsEmpty());
		EXPECT_EQ(code, publisher::kFailed);
	}

	Json::Value JsonPrinted() const {
		Json::Value value;
		std::istringstream(out_.str()) >> value;
		return value;
	}

	std::ostringstream out_;
	std::ostringstream err_;
	bool terminal_ = false;
};

TEST_F(Command, NeedsASubcommandItKnows) {
	EXPECT_EQ(Run({"--version"}), publisher::kDone);
	EXPECT_THAT(out_.str(), StartsWith("tarndbudpub 1."));
	EXPECT_EQ(Run({}), publisher::kUsage);
	EXPECT_EQ(Run({"unknown"}), publisher::kUsage);
	EXPECT_EQ(err_.str(), "tarndbudpub: There is no command \"unknown\".\n"
	                      "Usage: tarndbudpub [OPTIONS] SUBCOMMAND\nRun \"tarndbudpub --help\" for more.\n");
	EXPECT_EQ(Run({"publish", "tree"}), publisher::kUsage);
	EXPECT_EQ(err_.str(), "tarndbudpub: --repo is required.\nUsage: tarndbudpub publish [OPTIONS] TREE\n"
	                      "Run \"tarndbudpub publish --help\" for more.\n");
	EXPECT_EQ(Run(PublishArguments({"--level", "many"})), publisher::kUsage);
	EXPECT_EQ(Run({"--help"}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("keygen"));
}

TEST_F(Command, HelpEndsWithTheExitCodes) {
	for (const char* command : {"keygen", "publish", "withdraw", "restore", "changes", "verify", "extract", "inspect",
	         "fingerprint", "promote", "rollout", "prune"}) {
		EXPECT_EQ(Run({command, "--help"}), publisher::kDone);
		EXPECT_THAT(out_.str(), ::testing::EndsWith("Exit status: 0 done, 1 failed, 2 wrong usage.\n")) << command;
	}
}

TEST_F(Command, PublishSumsUpInOneLine) {
	EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_THAT(out_.str(), StartsWith("Published db version 1: 1 files, 7 B in a package of "));
	EXPECT_THAT(out_.str(), HasSubstr("http://host/packages/db/db_v1.tarn\n"));
	EXPECT_THAT(err_.str(), IsEmpty());
}

TEST_F(Command, PublishShowsProgressOnATerminalAlone) {
	terminal_ = true;
	EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_THAT(err_.str(), HasSubstr("packing 0 of 1 files, 7 B of 7 B"));
	EXPECT_THAT(err_.str(), ::testing::EndsWith("\r\x1b[K"));
	terminal_ = false;
	EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_THAT(err_.str(), Not(HasSubstr("packing")));
}

TEST_F(Command, PublishSaysThatNothingHasChanged) {
	EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_EQ(Run(PublishArguments({"--if-changed"})), publisher::kDone);
	EXPECT_EQ(out_.str(), "Nothing published: db version 1 holds this tree.\n");
	EXPECT_EQ(Run(PublishArguments({"--if-changed", "--json"})), publisher::kDone);
	EXPECT_FALSE(JsonPrinted()["is_published"].asBool());
	EXPECT_EQ(JsonPrinted()["data_version"].asInt(), 1);
	EXPECT_FALSE(fs::exists(Package(2)));
}

TEST_F(Command, PublishAndWithdrawPrintJson) {
	EXPECT_EQ(Run(PublishArguments({"--json"})), publisher::kDone);
	EXPECT_TRUE(JsonPrinted()["is_published"].asBool());
	EXPECT_TRUE(JsonPrinted()["is_first"].asBool());
	EXPECT_EQ(JsonPrinted()["download_link"].asString(), "http://host/packages/db/db_v1.tarn");
	EXPECT_EQ(JsonPrinted()["package_size"].asUInt64(), fs::file_size(Package(1)));
	Put("file", "bad");
	EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_EQ(
	    Run({"withdraw", "db", "--repo", options_.repository, "--key", options_.key_file, "--json"}), publisher::kDone);
	EXPECT_EQ(JsonPrinted()["data_version"].asInt(), 3);
	EXPECT_EQ(JsonPrinted()["withdrawn"].asInt(), 2);
	EXPECT_EQ(JsonPrinted()["restored"].asInt(), 1);
	EXPECT_EQ(JsonPrinted()["download_link"].asString(), "http://host/packages/db/db_v3.tarn");
	EXPECT_TRUE(JsonPrinted()["diff"].isNull());
}

TEST_F(Command, WithdrawTellsWhichVersionsItWithdraws) {
	for (const char* content : {"good", "bad", "worse"}) {
		Put("file", content);
		EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	}
	const std::vector<std::string> arguments = {"withdraw", "db", "--repo", options_.repository, "--key",
	    options_.key_file, "--to", "1", "--url", "http://new"};
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_THAT(out_.str(), StartsWith("Published db version 4: 1 files, 4 B in a package of "));
	EXPECT_THAT(out_.str(), HasSubstr("http://new/packages/db/db_v4.tarn\n"
	                                  "The content is that of version 1. Withdrawn: version 2 to 3.\n"));
	EXPECT_EQ(InstalledFrom(Package(4)).at("file"), "good");
	ExpectFailure(Run({"withdraw", "db", "--repo", directory_ / "missing", "--key", options_.key_file}), "missing");
	EXPECT_FALSE(fs::exists(directory_ / "missing"));
	EXPECT_EQ(Run({"withdraw", "--repo", options_.repository, "--key", options_.key_file}), publisher::kUsage);
}

TEST_F(Command, WithdrawalThatIsGivenTwicePublishesOnce) {
	for (const char* content : {"good", "bad"}) {
		Put("file", content);
		EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	}
	std::vector<std::string> arguments = {
	    "withdraw", "db", "--repo", options_.repository, "--key", options_.key_file, "--to", "1"};
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_EQ(out_.str(), "Nothing to do: version 3 has the content of version 1 already.\n");
	arguments.emplace_back("--json");
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_FALSE(JsonPrinted()["is_published"].asBool());
	EXPECT_EQ(JsonPrinted()["data_version"].asInt(), 3);
	EXPECT_EQ(JsonPrinted()["restored"].asInt(), 1);
	EXPECT_TRUE(JsonPrinted()["withdrawn"].isNull());
	EXPECT_EQ(JsonPrinted()["package_size"].asUInt64(), fs::file_size(Package(3)));
	EXPECT_FALSE(fs::exists(Package(4)));
}

TEST_F(Command, ChannelIsTheDocumentForEveryCommandThatReadsOne) {
	EXPECT_EQ(Run(PublishArguments({"--channel", "canary"})), publisher::kDone);
	EXPECT_THAT(out_.str(), StartsWith("Published db version 1 to canary: 1 files"));
	EXPECT_THAT(err_.str(), IsEmpty()) << "it is the first document";
	Put("file", "other");
	EXPECT_EQ(Run(PublishArguments({"--channel", "canary", "--json"})), publisher::kDone);
	EXPECT_EQ(JsonPrinted()["document"].asString(), "canary");
	const std::vector<std::string> where = {"--repo", options_.repository, "--key", directory_ / "key.pub"};
	const std::vector<std::vector<std::string>> commands = {
	    {"changes", "db"}, {"export", "db", directory_ / "kit"}, {"restore", "--force"}};
	for (std::vector<std::string> arguments : commands) {
		arguments.insert(arguments.end(), where.begin(), where.end());
		arguments.insert(arguments.end(), {"--channel", "canary"});
		EXPECT_EQ(Run(arguments), publisher::kDone) << arguments[0] << err_.str();
		arguments.insert(arguments.end(), {"--db-version", "canary"});
		EXPECT_EQ(Run(arguments), publisher::kUsage) << arguments[0];
	}
	EXPECT_FALSE(fs::exists(options_.repository + "/database_info/1"));
	ExpectFailure(Run({"changes", "db", where[0], where[1], where[2], where[3]}),
	    "There is no document " + options_.repository + "/database_info/1, only canary: give both versions");
}

TEST_F(Command, ChangesNamesAnUnknownOptionBeforeItJudgesItsValue) {
	const std::vector<std::string> where = {"--repo", options_.repository, "--key", directory_ / "key.pub"};
	EXPECT_EQ(Run({"changes", "db", "--foo", "bar", where[0], where[1], where[2], where[3]}), publisher::kUsage);
	EXPECT_THAT(err_.str(), AllOf(HasSubstr("--foo"), Not(HasSubstr("FROM \"bar\""))));
	for (const char* word : {"bar", "", "1x"}) {
		EXPECT_EQ(Run({"changes", "db", word, where[0], where[1], where[2], where[3]}), publisher::kUsage);
		EXPECT_THAT(err_.str(), HasSubstr("FROM \"" + std::string(word) + "\" must be the number of a version."));
	}
}

TEST_F(Command, RolloutSaysWhatItHasNotLookedAt) {
	std::vector<std::string> arguments = {"rollout", "canri", "5", "--conf", directory_ / "conf"};
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("reloaded. Not checked, without --repo: that canri exists, and names all that 1 "
	                                  "names.\n"));
	arguments[2] = "0";
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_THAT(out_.str(), Not(HasSubstr("Not checked")));
	arguments[2] = "5";
	arguments.emplace_back("--json");
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_FALSE(JsonPrinted()["is_checked"].asBool());
	arguments.pop_back();
	arguments.insert(arguments.end(), {"--repo", options_.repository});
	EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	ExpectFailure(Run(arguments), "database_info/canri cannot be read: it is missing");
	EXPECT_EQ(Run(PublishArguments({"--channel", "canri"})), publisher::kDone);
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_THAT(out_.str(), Not(HasSubstr("Not checked")));
	arguments.emplace_back("--json");
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_TRUE(JsonPrinted()["is_checked"].asBool());
}

TEST_F(Command, PublishTakesEveryOption) {
	EXPECT_EQ(
	    Run(PublishArguments({"--data-version", "41", "--format-version", "2", "--db-version", "3", "--level", "1"})),
	    publisher::kDone);
	EXPECT_EQ(Document("3")["db_list"]["db"]["data_version"].asString(), "41");
	EXPECT_EQ(Run({"inspect", "--json", Package(41)}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("\"format_version\" : \"2\""));
}

TEST_F(Command, PublishRefusesValuesThatCanNeverWork) {
	const std::vector<std::vector<std::string>> bad = {{"--data-version", "-1"}, {"--data-version", "2147483648"},
	    {"--level", "0"}, {"--level", "20"}, {"--memory", "15"}, {"--memory", "1048577"}, {"--format-version", "a&b"},
	    {"--format-version", ""}, {"--db-version", "../1"}, {"--db-version", ".hidden"}};
	for (const auto& more : bad) {
		EXPECT_EQ(Run(PublishArguments(more)), publisher::kUsage) << more[0] << " " << more[1];
	}
	EXPECT_FALSE(fs::exists(options_.repository));
}

TEST_F(Command, AnOptionThatMayBeRepeatedTakesOneValueEachTime) {
	std::vector<std::string> arguments = PublishArguments();
	arguments.insert(arguments.begin() + 1, {"--old-key", directory_ / "key.pub"}); // before TREE
	EXPECT_EQ(Run(arguments), publisher::kDone);
}

TEST_F(Command, PublishTakesIdsThatNeedNoEscapingAlone) {
	for (const std::string& id : {std::string(), std::string("a/b"), std::string(".."), std::string("a b"),
	         std::string("a&b"), std::string("a=b"), std::string("a[b]"), std::string("a%b"), std::string("a#b"),
	         std::string("caf\xc3\xa9"), std::string("-a"), std::string(65, 'i'), std::string("any")}) {
		options_.id = id;
		EXPECT_THROW(publisher::CheckOptions(options_), publisher::UsageError) << id;
	}
	options_.id = "geo-ip_2.lite";
	EXPECT_NO_THROW(publisher::CheckOptions(options_));
}

TEST_F(Command, PublishTakesPlainUrlsAlone) {
	for (const char* url : {"", "host", "ftp://host", "http://", "http:///path", "-http://host", "http://host/?q",
	         "http://host/#f", "http://ho st", "http://host\n", "file:///etc"}) {
		options_.url = url;
		EXPECT_THROW(publisher::CheckOptions(options_), publisher::UsageError) << url;
	}
	options_.url = "https://host:8443/updates";
	EXPECT_NO_THROW(publisher::CheckOptions(options_));
}

TEST_F(Command, PublishSaysWhatIsWrongWithTheKey) {
	options_.key_file = directory_ / "key.pub";
	ExpectFailure(Run(PublishArguments()), "The signing key " + options_.key_file + " cannot be used: it holds no key");
	options_.key_file = directory_ / "missing.key";
	ExpectFailure(Run(PublishArguments()), "missing.key cannot be used: it cannot be opened");
	EXPECT_FALSE(fs::exists(options_.repository));
}

TEST_F(Command, PublishSaysWhenItIsTheFirst) {
	EXPECT_EQ(Run(PublishArguments({"--continue"})), publisher::kFailed);
	EXPECT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("\nThis is the first publication of db in " + options_.repository));
	EXPECT_EQ(Run(PublishArguments({"--continue"})), publisher::kDone);
	EXPECT_THAT(out_.str(), Not(HasSubstr("first publication")));
}

TEST_F(Command, PublishWarnsOfAKeyThatOthersMayReadAndGoesOn) {
	for (const fs::perms of_others : {fs::perms::group_read, fs::perms::others_read, fs::perms::group_write}) {
		fs::permissions(options_.key_file, fs::perms::owner_read | of_others);
		EXPECT_EQ(Run(PublishArguments({"--keep-diffs", "0"})), publisher::kDone);
		EXPECT_THAT(err_.str(),
		    StartsWith("warning: Others than its owner may read or change the private key " + options_.key_file));
	}
	EXPECT_THAT(err_.str(), HasSubstr("(mode 0420)"));
	fs::permissions(options_.key_file, fs::perms::owner_read | fs::perms::owner_write);
	EXPECT_EQ(Run(PublishArguments({"--keep-diffs", "0"})), publisher::kDone);
	EXPECT_THAT(err_.str(), IsEmpty());
}

TEST_F(Command, RestoreTellsWhatItWroteAndWhatItCouldNot) {
	const std::string document = options_.repository + "/database_info/1";
	const std::vector<std::string> arguments = {
	    "restore", "--repo", options_.repository, "--key", directory_ / "key.pub"};
	ExpectFailure(Run(arguments), "is no directory that can be read");
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_EQ(
	    out_.str(), "Left as it is: db, of which the document names version 1.\nNothing to write: " + document + "\n");
	fs::remove(document);
	EXPECT_EQ(Run(arguments), publisher::kDone);
	EXPECT_EQ(out_.str(),
	    "Restored db version 1, http://host/packages/db/db_v1.tarn, with 0 diff packages.\nWrote " + document + "\n");
	fs::remove(document);
	WriteFile(Package(3, "other"), "damaged");
	EXPECT_EQ(Run(arguments), publisher::kFailed);
	EXPECT_THAT(out_.str(), StartsWith("Restored db version 1, "));
	EXPECT_THAT(err_.str(), HasSubstr("tarndbudpub: other is not restored: none of its full packages can be used"));
	EXPECT_EQ(Run({"restore", "--repo", options_.repository}), publisher::kUsage);
	EXPECT_EQ(Run({"restore", "--repo", options_.repository, "--key", directory_ / "key.pub", "--url", "host"}),
	    publisher::kUsage);
}

TEST_F(Command, VerifyNamesTheKeyThatSigned) {
	archive::GenerateKeyFiles(directory_ / "other");
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_EQ(Run({"verify", Package(1), "--key", directory_ / "key.pub"}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("is whole and signed by " + (directory_ / "key.pub")));
	EXPECT_EQ(Run({"verify", Package(1), "--key", directory_ / "other.pub", "--key", directory_ / "key.pub"}),
	    publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("signed by " + (directory_ / "key.pub")));
	ExpectFailure(Run({"verify", Package(1), "--key", directory_ / "other.pub"}), "has no signature by a trusted key");
	ExpectFailure(Run({"verify", Package(1), "--key", directory_ / "key.key"}),
	    "key.key: this is a private key; give the public one");
	ExpectFailure(Run({"verify", directory_ / "key.pub", "--key", directory_ / "key.pub"}), "is not a signed archive");
	EXPECT_EQ(Run({"verify", Package(1)}), publisher::kUsage);
}

TEST_F(Command, VerifyFindsADamagedByte) {
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	std::string bytes = ReadFile(Package(1));
	bytes.back() = static_cast<char>(bytes.back() ^ 1);
	WriteFile(Package(1), bytes);
	ExpectFailure(Run({"verify", Package(1), "--key", directory_ / "key.pub"}), "differs from its signed digest");
}

TEST_F(Command, UnpackPutsTheFilesOfACheckedPackageIntoADirectory) {
	Put("zones/north", Noise(5000, 1));
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	const std::string out = directory_ / "unpacked";
	ExpectFailure(
	    Run({"extract", directory_ / "missing", out, "--key", directory_ / "key.pub"}), "missing is missing.");
	EXPECT_FALSE(std::filesystem::exists(out));
	EXPECT_EQ(Run({"extract", Package(1), out, "--key", directory_ / "key.pub"}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("2 files of " + Package(1) + " are in " + out));
	EXPECT_EQ(ReadFile(out + "/zones/north"), Noise(5000, 1));
	archive::GenerateKeyFiles(directory_ / "other");
	ExpectFailure(
	    Run({"extract", Package(1), out, "--key", directory_ / "other.pub"}), "has no signature by a trusted");
	ExpectFailure(
	    Run({"extract", Package(1), out + "/zones/north", "--key", directory_ / "key.pub"}), "Not a directory");
	EXPECT_EQ(Run({"extract", Package(1), "--key", directory_ / "key.pub"}), publisher::kUsage);
}

TEST_F(Command, InspectTellsHowAPackageIsCompressed) {
	Put("file", std::string(5000, 'x'));
	Put("noise.bin", Noise(50'000, 1));
	ASSERT_EQ(Run(PublishArguments({"--level", "1"})), publisher::kDone);
	EXPECT_EQ(Run({"inspect", Package(1)}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("\ncompression    "));
	EXPECT_THAT(out_.str(), HasSubstr(" frame, "));
	EXPECT_EQ(Run({"inspect", Package(1), "--json"}), publisher::kDone);
	Json::Value value;
	std::istringstream(out_.str()) >> value;
	Json::UInt64 packed = 0;
	for (const std::string& codec : value["codecs"].getMemberNames()) {
		EXPECT_GE(value["codecs"][codec]["frames"].asUInt64(), 1U);
		EXPECT_GE(value["codecs"][codec]["unpacked_size"].asUInt64(), value["codecs"][codec]["packed_size"].asUInt64());
		packed += value["codecs"][codec]["packed_size"].asUInt64();
	}
	EXPECT_EQ(packed, value["payload_size"].asUInt64());
}

TEST_F(Command, InspectListsMembersAndSaysThatItVerifiesNothing) {
	const FixedTime time("1700000000");
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_EQ(Run({"inspect", Package(1)}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("signature not checked"));
	EXPECT_THAT(out_.str(),
	    HasSubstr(R"({"data_version":1,"format_version":"1","id":"db","kind":"full","published":1700000000})"));
	EXPECT_THAT(out_.str(), HasSubstr("published      2023-11-14 22:13:20 UTC\n"));
	EXPECT_THAT(out_.str(), HasSubstr("             7  file           file\n"));
	EXPECT_EQ(Run({"inspect", Package(1), "--json"}), publisher::kDone);
	Json::Value value;
	std::istringstream(out_.str()) >> value;
	EXPECT_EQ(value["verified"], Json::Value(false));
	EXPECT_EQ(value["key_type"].asInt(), 6);
	EXPECT_EQ(value["entry_count"].asInt(), 1);
	EXPECT_EQ(value["unpacked_size"].asInt(), 7);
	EXPECT_EQ(value["metadata"]["id"].asString(), "db");
	EXPECT_EQ(value["metadata"]["published"].asInt(), 1700000000);
	ASSERT_EQ(value["members"].size(), 1U);
	EXPECT_EQ(value["members"][0]["name"].asString(), "file");
	EXPECT_EQ(value["members"][0]["size"].asInt(), 7);
	ExpectFailure(Run({"inspect", directory_ / "missing"}), "missing is missing.");
}

TEST_F(Command, PublishSumsUpTheDiff) {
	Put("file", Noise(5000, 1));
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	Put("file", Noise(5000, 1) + "more");
	Put("new", "new");
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("\nDiff from version 1: "));
	EXPECT_THAT(
	    out_.str(), HasSubstr(" % of the full package; files created 1, replaced 0, patched 1, scripted 0, deleted "
	                          "0. Devices from version 1 on take diff packages.\n"));
	terminal_ = true;
	ASSERT_EQ(Run(PublishArguments({"--keep-diffs", "1"})), publisher::kDone);
	EXPECT_THAT(err_.str(), HasSubstr("verifying"));
	EXPECT_EQ(Run(PublishArguments({"--keep-diffs", "-1"})), publisher::kUsage);
	EXPECT_EQ(Run(PublishArguments({"--keep-diffs", "many"})), publisher::kUsage);
	EXPECT_THAT(err_.str(), HasSubstr("--keep-diffs \"many\" must be a number or \"auto\"."));
	EXPECT_EQ(Run(PublishArguments({"--old-key", directory_ / "missing"})), publisher::kFailed);
}

TEST_F(Command, InspectTellsWhatWasExpectedOfADatabase) {
	const std::string rows = "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 2000) ";
	ExecuteSql(options_.tree + "/db", "CREATE TABLE t(a); " + rows + "INSERT INTO t SELECT hex(randomblob(9)) FROM c");
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	ExecuteSql(options_.tree + "/db", "UPDATE t SET a = 'changed' WHERE rowid % 100 = 1");
	ASSERT_EQ(Run(PublishArguments({"--memory", "16"})), publisher::kDone);
	const std::string diff = options_.repository + "/packages/db/db_d2.tarn";
	EXPECT_EQ(Run({"inspect", diff}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("as much again as the chain so far"));
	EXPECT_THAT(out_.str(),
	    ::testing::ContainsRegex("[0-9]+ \\([0-9]+\\) +[0-9]+ \\([0-9]+\\) +[0-9]+ \\([0-9]+\\)  sql +db\n"));
	EXPECT_EQ(Run({"inspect", diff, "--json"}), publisher::kDone);
	Json::Value value;
	std::istringstream(out_.str()) >> value;
	const Json::Value plan = value["changes"][0]["plan"];
	EXPECT_EQ(plan["expected"]["sql"].asUInt64(), 2 * plan["sql"].asUInt64());
	EXPECT_GT(plan["expected"]["vcdiff"].asUInt64(), plan["expected"]["sql"].asUInt64());
}

TEST_F(Command, InspectListsWhatADiffDoesAndHow) {
	Put("file", Noise(5000, 1));
	Put("gone", "gone");
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	Put("file", Noise(5000, 1) + "more");
	Put("new", "new");
	std::filesystem::remove(options_.tree + "/gone");
	ASSERT_EQ(Run(PublishArguments()), publisher::kDone);
	const std::string diff = options_.repository + "/packages/db/db_d2.tarn";
	EXPECT_EQ(Run({"inspect", diff}), publisher::kDone);
	EXPECT_THAT(out_.str(), HasSubstr("  update     vcdiff   file\n"));
	EXPECT_THAT(out_.str(), HasSubstr("             0  delete     none     gone\n"));
	EXPECT_THAT(out_.str(), HasSubstr("             3  create     whole    new\n"));
	EXPECT_THAT(out_.str(), HasSubstr("             3  total      whole    1 file\n"));
	EXPECT_EQ(Run({"inspect", diff, "--json"}), publisher::kDone);
	Json::Value value;
	std::istringstream(out_.str()) >> value;
	ASSERT_EQ(value["changes"].size(), 3U);
	EXPECT_EQ(value["changes"][0]["name"].asString(), "file");
	EXPECT_EQ(value["changes"][0]["kind"].asString(), "vcdiff");
	EXPECT_EQ(value["changes"][2]["operation"].asString(), "create");
	EXPECT_EQ(value["changes"][2]["size"].asInt(), 3);
	EXPECT_EQ(value["totals"]["whole"]["files"].asInt(), 1);
	EXPECT_EQ(value["metadata"]["kind"].asString(), "diff");
	EXPECT_EQ(Run({"verify", diff, "--key", directory_ / "key.pub"}), publisher::kDone);
}

} // namespace

} // namespace tarn::test
