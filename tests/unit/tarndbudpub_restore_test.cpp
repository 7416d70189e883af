// Documents that are rebuilt from packages, and what publishers make of them afterwards.
#include "archive/signing_key.h"
#include "base/document_limit.h"
#include "diff_fixture.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/restore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstdlib>

namespace tarn::test {

namespace {

class Restoring : public DiffPublisherTest {
protected:
	Restoring() {
		restore_.repository = options_.repository;
		restore_.keys = {PublicKey()};
		restore_.keep_diffs = options_.keep_diffs;
	}

	std::string DocumentPath() const { return options_.repository + "/database_info/1"; }
	void PublishUpTo(int version) {
		for (int at = 1; at <= version; ++at) {
			Put("text", std::to_string(at));
			Publish();
			SetTime(Package(at));
		}
	}
	/** The time of a file stands for what a package does not say; this is the time that it was published at. */
	static void SetTime(const std::string& path) {
		const std::array<timespec, 2> times = {{{1'700'000'000, 0}, {1'700'000'000, 0}}};
		ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
	}
	publisher::RestoreResult Restore() { return publisher::Restore(restore_, observer_); }
	std::string Failure() {
		try {
			const publisher::RestoreResult result = Restore();
			return result.failures.empty() ? "" : result.failures.front();
		} catch (const publisher::PublishError& error) {
			return error.what();
		}
	}
	std::string NamedVersion() const { return Document()["db_list"]["db"]["data_version"].asString(); }

	FixedTime time_{"1700000000"};
	publisher::RestoreOptions restore_;
};

TEST_F(Restoring, WritesTheDocumentThatThePublisherWrote) {
	PublishUpTo(4);
	const std::string document = ReadFile(DocumentPath());
	fs::remove_all(options_.repository + "/database_info");
	const publisher::RestoreResult result = Restore();
	EXPECT_THAT(result.failures, IsEmpty());
	EXPECT_TRUE(result.is_written);
	ASSERT_EQ(result.databases.size(), 1U);
	EXPECT_EQ(result.databases[0].data_version, 4);
	EXPECT_EQ(result.databases[0].diffs, 3U);
	EXPECT_EQ(result.databases[0].oldest_base, 1);
	EXPECT_EQ(ReadFile(DocumentPath()), document);
	EXPECT_EQ(Followed(1, 4), PublishedTree());
	warnings_.clear();
	Put("text", "5");
	EXPECT_TRUE(Publish().diff) << "the chain goes on";
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2, 3, 4, 5));
	EXPECT_THAT(warnings_, IsEmpty());
	EXPECT_EQ(Followed(1, 5), PublishedTree());
}

TEST_F(Restoring, LeavesADocumentAloneThatDevicesWouldNotRead) {
	PublishUpTo(1);
	Json::Value document = Document();
	document["db_list"].removeMember("db");
	document["extra"] = std::string(kLargestDocument, 'x');
	WriteFile(DocumentPath(), document.toStyledString());
	EXPECT_THAT(Failure(), HasSubstr(" are more than the 2097152 that devices read"));
	EXPECT_TRUE(Document() == document);
}

TEST_F(Restoring, NamesEveryDatabaseOrThoseItIsToldTo) {
	PublishUpTo(2);
	options_.id = "other";
	Publish();
	fs::remove(DocumentPath());
	restore_.ids = {"other"};
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(Document()["db_list"].getMemberNames(), (std::vector<std::string>{"other"}));
	restore_.ids.clear();
	const publisher::RestoreResult result = Restore();
	ASSERT_EQ(result.databases.size(), 2U);
	EXPECT_FALSE(result.databases[0].was_named);
	EXPECT_TRUE(result.databases[1].was_named);
	EXPECT_EQ(NamedVersion(), "2");
	restore_.ids = {"third"};
	EXPECT_THAT(Failure(), HasSubstr("third is not restored: there are no packages of it in "));
	restore_.ids = {"../db"};
	EXPECT_THAT(Failure(), HasSubstr("--id \"../db\" must be"));
}

TEST_F(Restoring, LeavesADocumentAsItIsThatCanBeRead) {
	PublishUpTo(2);
	const std::string older = ReadFile(DocumentPath());
	EXPECT_FALSE(Restore().is_written);
	EXPECT_EQ(ReadFile(DocumentPath()), older);
	Put("text", "3");
	Publish();
	WriteFile(DocumentPath(), older);
	EXPECT_THAT(
	    Failure(), AllOf(HasSubstr("names its version 2, though " + Diff(3) + " is there"), HasSubstr("--force")));
	EXPECT_EQ(ReadFile(DocumentPath()), older);
	restore_.force = true;
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(NamedVersion(), "3");
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2, 3));
}

TEST_F(Restoring, KeepsAllElseThatTheDocumentHolds) {
	PublishUpTo(2);
	WriteFile(DocumentPath(),
	    R"({"deprecated": true, "extra": 1, "db_list": {"other": {"data_version": "7"}, "db": {"note": "kept"}}})");
	EXPECT_EQ(Failure(), "");
	const Json::Value document = Document();
	EXPECT_EQ(document["deprecated"], Json::Value(true));
	EXPECT_EQ(document["extra"], Json::Value(1));
	EXPECT_EQ(document["db_list"]["other"]["data_version"].asString(), "7");
	EXPECT_EQ(document["db_list"]["db"]["note"].asString(), "kept");
	EXPECT_EQ(NamedVersion(), "2");
}

TEST_F(Restoring, BeginsADamagedDocumentAnewAndKeepsItsText) {
	PublishUpTo(2);
	const std::string document = ReadFile(DocumentPath());
	const std::string damaged = document.substr(0, document.size() / 2);
	WriteFile(DocumentPath(), damaged);
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(ReadFile(DocumentPath()), document);
	EXPECT_EQ(ReadFile(options_.repository + "/database_info/.damaged-1"), damaged);
	EXPECT_EQ(Publish().data_version, 3) << "the text that was kept is no document";
}

TEST_F(Restoring, LeavesADocumentAsItIsThatItCannotWrite) {
	PublishUpTo(2);
	const std::string damaged = "{\"db_list\": {\"caf\xe9\": {\"data_version\": \"7\"}}}";
	WriteFile(DocumentPath(), damaged);
	EXPECT_THAT(PublishError(), HasSubstr("holds text that is no UTF-8 and is left as it is"));
	EXPECT_EQ(ReadFile(DocumentPath()), damaged);
}

TEST_F(Restoring, NamesTheNewestPackageThatCanBeUsedAndWarnsOfTheOthers) {
	PublishUpTo(4);
	fs::remove(DocumentPath());
	WriteFile(Package(4), "damaged");
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(NamedVersion(), "3");
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2, 3));
	EXPECT_THAT(warnings_, Contains("Left out: the package " + Package(4) + " is too short for a signed archive."));
	EXPECT_THAT(warnings_,
	    Contains("Devices may have version 4 of db, of which there is no full package that can be named: the document "
	             "names version 3. Publish with --data-version 5 next."));
	EXPECT_THAT(PublishError(), HasSubstr(Package(4) + " is there already"));
	options_.data_version = 5;
	EXPECT_EQ(Publish().data_version, 5);
}

TEST_F(Restoring, NamesNoVersionOfWhichOnlyTheDiffIsLeft) {
	PublishUpTo(3);
	fs::remove(DocumentPath());
	fs::remove(Package(3));
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(NamedVersion(), "2");
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2));
	EXPECT_THAT(warnings_, Contains(HasSubstr("Devices may have version 3 of db")));
	EXPECT_THAT(PublishError(), HasSubstr("Version 3 of db cannot be published"));
}

TEST_F(Restoring, EndsTheChainAtAGap) {
	PublishUpTo(4);
	fs::remove(DocumentPath());
	fs::remove(Diff(3));
	EXPECT_EQ(Failure(), "");
	EXPECT_THAT(OfferedDiffs(), ElementsAre(4));
	EXPECT_THAT(warnings_, Contains("Left out: from the package " + Diff(2) + " no chain leads to version 4."));
}

TEST_F(Restoring, NamesAsManyDiffsAsItIsTold) {
	PublishUpTo(4);
	for (const int kept : {0, 2}) {
		fs::remove(DocumentPath());
		restore_.keep_diffs = kept;
		EXPECT_EQ(Failure(), "");
		EXPECT_EQ(OfferedDiffs().size(), static_cast<std::size_t>(kept));
	}
	EXPECT_THAT(OfferedDiffs(), ElementsAre(3, 4));
	restore_.keep_diffs = -1;
	EXPECT_THROW(Restore(), publisher::UsageError);
}

TEST_F(Restoring, NamesAsManyDiffsAsThePublisherKeepsByItself) {
	options_.keep_diffs.reset();
	restore_.keep_diffs.reset();
	for (unsigned version = 1; version <= 8; ++version) {
		Put("new", Noise(6'000, version + 1));
		Publish();
	}
	const std::vector<int> published = OfferedDiffs();
	ASSERT_LT(published.size(), 7U);
	fs::remove(DocumentPath());
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(OfferedDiffs(), published);
}

TEST_F(Restoring, BelievesNoPackageThatIsNotSignedOrNotInItsPlace) {
	PublishUpTo(2);
	fs::remove(DocumentPath());
	archive::GenerateKeyFiles(directory_ / "other");
	restore_.keys = {directory_ / "other.pub"};
	EXPECT_THAT(Failure(), HasSubstr("db is not restored: none of its full packages can be used; --old-key names"));
	EXPECT_THAT(warnings_, Contains(HasSubstr("db_v2.tarn has no signature by a trusted key")));
	EXPECT_FALSE(fs::exists(DocumentPath()));
	restore_.keys.push_back(PublicKey());
	fs::copy_file(Package(1), Package(7));
	fs::copy_file(Diff(2), Diff(7));
	fs::copy_file(Package(2), options_.repository + "/packages/db/db_v0002.tarn");
	warnings_.clear();
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(NamedVersion(), "2");
	EXPECT_THAT(warnings_, Contains(HasSubstr(Package(7) + " is not the full package of version 7 of db")));
	EXPECT_THAT(warnings_, Contains(HasSubstr(Diff(7) + " is not the diff package of version 7 of db")));
	EXPECT_THAT(warnings_, Contains(HasSubstr("db_v0002.tarn should be named " + Package(2))));
}

TEST_F(Restoring, AsksWhichFormatTheDocumentIsFor) {
	PublishUpTo(1);
	options_.format_version = "2";
	options_.db_version = "2";
	Put("text", "2");
	Publish();
	fs::remove_all(options_.repository + "/database_info");
	EXPECT_THAT(Failure(), HasSubstr("its packages are of the formats \"1\" and \"2\"; --format-version says which"));
	restore_.format_version = "1";
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(NamedVersion(), "1");
	restore_.format_version = "2";
	restore_.db_version = "2";
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(Document("2")["db_list"]["db"]["data_version"].asString(), "2");
}

TEST_F(Restoring, NamesNoVersionAboveTheOneThatItIsTold) {
	PublishUpTo(2);
	const std::string document = ReadFile(DocumentPath());
	options_.db_version = "canary";
	PublishUpTo(2);
	warnings_.clear();
	fs::remove(DocumentPath());
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(NamedVersion(), "4");
	EXPECT_THAT(
	    warnings_, ElementsAre("Version 4 of db is also what canary names. If it was on trial there, run it again "
	                           "with --force and --data-version."));
	warnings_.clear();
	restore_.force = true;
	restore_.data_version = 2;
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(ReadFile(DocumentPath()), document);
	restore_.data_version = 0;
	EXPECT_THAT(Failure(), HasSubstr("none of its full packages that can be used is of version 0 or below"));
	restore_.data_version = -1;
	EXPECT_THROW(Restore(), publisher::UsageError);
}

TEST_F(Restoring, ReleasesToNobodyElseWhatIsOnTrialInAChannel) {
	PublishUpTo(2);
	const std::string document = ReadFile(DocumentPath());
	options_.db_version = "canary";
	PublishUpTo(1);
	restore_.force = true;
	restore_.url = "http://elsewhere.example/";
	EXPECT_THAT(Failure(), HasSubstr("version 3 is what canary names, and would be for all devices; --data-version 2 "
	                                 "keeps the version that " +
	                                 DocumentPath() + " names"));
	EXPECT_EQ(ReadFile(DocumentPath()), document);
	restore_.data_version = 2;
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(NamedVersion(), "2");
	EXPECT_THAT(ReadFile(DocumentPath()), HasSubstr("http://elsewhere.example/"));
}

TEST_F(Restoring, NeedsARepository) {
	EXPECT_THAT(Failure(), HasSubstr("/repo is no directory that can be read"));
	EXPECT_FALSE(fs::exists(options_.repository));
}

TEST_F(Restoring, NeedsPackages) {
	fs::create_directory(options_.repository);
	restore_.url = "http://elsewhere.example/";
	EXPECT_THAT(Failure(), HasSubstr("There are no packages in "));
}

TEST_F(Restoring, MakesLinksOfAnotherUrlThatIsGiven) {
	PublishUpTo(1);
	fs::remove(DocumentPath());
	restore_.url = "http://elsewhere.example/";
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(
	    Document()["db_list"]["db"]["download_link"].asString(), "http://elsewhere.example/packages/db/db_v1.tarn");
}

TEST_F(Restoring, NeedsAUrlThatNobodyHasNoted) {
	PublishUpTo(1);
	fs::remove(options_.repository + "/packages/.tarndbudpub.url");
	EXPECT_THAT(Failure(), HasSubstr("--url is needed"));
	restore_.url = "elsewhere";
	EXPECT_THROW(Restore(), publisher::UsageError);
}

TEST_F(Restoring, LeavesTheOldDocumentOrTheNewWhenItIsKilledAtAnyMoment) {
	PublishUpTo(3);
	const std::string document = ReadFile(DocumentPath());
	const std::string damaged = document.substr(0, 50);
	int killed = 0;
	for (int moment = 0; moment < 30; ++moment) {
		WriteFile(DocumentPath(), damaged);
		killed += IsKilledAfter(moment * 300, [this] { Restore(); }) ? 1 : 0;
		EXPECT_THAT(ReadFile(DocumentPath()), ::testing::AnyOf(damaged, document)) << moment;
	}
	EXPECT_GT(killed, 0);
	WriteFile(DocumentPath(), damaged);
	EXPECT_EQ(Failure(), "");
	EXPECT_EQ(ReadFile(DocumentPath()), document);
	EXPECT_THAT(RepositoryFiles(), Not(Contains(HasSubstr(".part"))));
}

} // namespace

} // namespace tarn::test
