// Repositories that are pruned and checked, and the file that nginx gets for a rollout.
#include "archive/signing_key.h"
#include "base/document_limit.h"
#include "diff_fixture.h"
#include "publisher/commands/command_line.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/check_repository.h"
#include "publisher/releases/prune.h"
#include "publisher/releases/rollout.h"
#include "publisher/repository/repository.h"

#include <fcntl.h>
#include <sys/file.h>

#include <sstream>

namespace tarn::test {

namespace {

class RepositoryCare : public DiffPublisherTest {
protected:
	RepositoryCare() { options_.level = 1; }

	void PublishUpTo(int version) {
		while (version_ < version) {
			Put("text", "version " + std::to_string(++version_));
			Publish();
		}
	}
	void ChangeEntry(const std::function<void(Json::Value& entry)>& change, const std::string& document = "1") {
		Json::Value value = Document(document);
		change(value["db_list"]["db"]);
		WriteFile(options_.repository + "/database_info/" + document, value.toStyledString());
	}
	int version_ = 0;
};

class Pruning : public RepositoryCare {
protected:
	Pruning() { prune_.repository = options_.repository; }

	publisher::PruneResult Prune() { return publisher::Prune(prune_, observer_); }
	std::vector<std::string> Pruned() {
		std::vector<std::string> names;
		for (const publisher::PruneResult::File& file : Prune().files) {
			names.push_back(fs::path(file.path).filename().string());
		}
		return names;
	}

	publisher::PruneOptions prune_;
};

TEST_F(Pruning, KeepsWhatDocumentsAndTheNextPublicationNeed) {
	options_.keep_diffs = 2;
	PublishUpTo(6);
	EXPECT_THAT(Pruned(), ElementsAre("db_v1.tarn", "db_v2.tarn", "db_v3.tarn")) << "the chain begins at version 4";
	EXPECT_THAT(Pruned(), IsEmpty());
	PublishUpTo(7);
	EXPECT_THAT(warnings_, IsEmpty());
	EXPECT_EQ(Followed(5, 7), PublishedTree());
}

TEST_F(Pruning, KeepsThePackageBeforeTheNewestOne) {
	options_.keep_diffs = 0;
	PublishUpTo(4);
	EXPECT_THAT(Pruned(), ElementsAre("db_v1.tarn", "db_v2.tarn"));
}

TEST_F(Pruning, KeepsWhatAnotherChannelNeeds) {
	options_.keep_diffs = 0;
	PublishUpTo(3);
	options_.db_version = "canary";
	PublishUpTo(6);
	EXPECT_THAT(Pruned(), ElementsAre("db_v1.tarn", "db_v4.tarn"));
}

TEST_F(Pruning, SaysWhatItFreesAndRemovesNothingWhenItIsDry) {
	options_.keep_diffs = 0;
	PublishUpTo(4);
	prune_.dry_run = true;
	const auto before = RepositoryFiles();
	const publisher::PruneResult planned = Prune();
	EXPECT_EQ(RepositoryFiles(), before);
	EXPECT_EQ(planned.bytes, fs::file_size(Package(1)) + fs::file_size(Package(2)));
	prune_.dry_run = false;
	EXPECT_EQ(Prune().bytes, planned.bytes);
	EXPECT_FALSE(fs::exists(Package(1)));
	EXPECT_TRUE(fs::exists(Package(3)));
}

TEST_F(Pruning, RemovesWhatKilledPublishersLeftAndDiffsThatNobodyNames) {
	PublishUpTo(3);
	WriteFile(options_.repository + "/.tarndbudpub-work-x/new/file", "12345");
	WriteFile(options_.repository + "/packages/db/.tarndbudpub-y.part", "12");
	ChangeEntry([](Json::Value& entry) { entry["diff_files"].removeMember("2"); });
	const std::uint64_t unneeded = fs::file_size(Diff(2)) + fs::file_size(Package(1));
	EXPECT_EQ(Prune().bytes, unneeded + 7);
	EXPECT_FALSE(fs::exists(Diff(2)) || fs::exists(Package(1)));
	EXPECT_FALSE(fs::exists(options_.repository + "/.tarndbudpub-work-x"));
	EXPECT_FALSE(fs::exists(options_.repository + "/packages/db/.tarndbudpub-y.part"));
	EXPECT_TRUE(fs::exists(Package(2)) && fs::exists(Package(3)) && fs::exists(Diff(3)));
}

TEST_F(Pruning, KeepsVersionsAboveEveryDocument) {
	options_.keep_diffs = 0;
	PublishUpTo(3);
	fs::copy_file(Package(3), Package(9));
	fs::copy_file(Package(3), Diff(9));
	WriteFile(options_.repository + "/packages/db/readme", "mine");
	EXPECT_THAT(Pruned(), ElementsAre("db_v1.tarn"));
	EXPECT_TRUE(fs::exists(Package(9)) && fs::exists(Diff(9)));
	EXPECT_TRUE(fs::exists(options_.repository + "/packages/db/readme"));
}

TEST_F(Pruning, RemovesNothingWithoutTheDocument) {
	options_.keep_diffs = 0;
	PublishUpTo(4);
	const std::string path = options_.repository + "/database_info/1";
	const std::string document = ReadFile(path);
	WriteFile(path, document.substr(0, 50));
	EXPECT_THROW(Prune(), publisher::PublishError);
	fs::remove(path);
	EXPECT_THAT(Pruned(), IsEmpty());
	EXPECT_THAT(warnings_, ElementsAre("No document names db, so nothing of it is removed."));
	prune_.ids = {"db"};
	EXPECT_THROW(Prune(), publisher::PublishError);
	EXPECT_TRUE(fs::exists(Package(1)));
	prune_.ids = {"../db"};
	EXPECT_THROW(Prune(), publisher::UsageError);
	prune_.repository += "x";
	EXPECT_THROW(Prune(), publisher::PublishError);
}

TEST_F(Pruning, OfOneDatabaseLeavesTheOthers) {
	options_.keep_diffs = 0;
	PublishUpTo(3);
	options_.id = "other";
	PublishUpTo(6);
	prune_.ids = {"other"};
	EXPECT_THAT(Pruned(), ElementsAre("other_v1.tarn"));
	EXPECT_TRUE(fs::exists(Package(1)));
}

TEST_F(Pruning, EndsWhenItIsRunAgainAfterAKill) {
	options_.keep_diffs = 0;
	PublishUpTo(8);
	RememberRepository();
	const auto prune = [this] { Prune(); };
	const auto expect_whole = [this, prune] {
		EXPECT_TRUE(fs::exists(Package(8)) && fs::exists(Package(7)));
		prune();
		EXPECT_THAT(
		    RepositoryFiles(), ElementsAre("database_info/1", "packages/db/db_v7.tarn", "packages/db/db_v8.tarn"));
	};
	while (KilledAtMoments(20, 100, prune, expect_whole) == 0) {
		// On a busy machine every run may have ended before it was killed.
	}
}

class CheckingRepository : public RepositoryCare {
protected:
	CheckingRepository() {
		check_.repository = options_.repository;
		check_.keys = {PublicKey()};
	}

	publisher::CheckResult Check() { return publisher::CheckRepository(check_, observer_); }
	/** "broken: where: what" of each problem. */
	std::vector<std::string> Problems() {
		std::vector<std::string> problems;
		for (const publisher::RepositoryProblem& problem : Check().problems) {
			const bool is_broken = problem.severity == publisher::Severity::kBroken;
			problems.push_back((is_broken ? "broken: " : "untidy: ") + problem.where + ": " + problem.what);
		}
		return problems;
	}

	publisher::RepositoryCheckOptions check_;
};

TEST_F(CheckingRepository, FindsNothingInOneThatIsWhole) {
	PublishUpTo(3);
	options_.db_version = "canary";
	PublishUpTo(4);
	const publisher::CheckResult result = Check();
	EXPECT_THAT(Problems(), IsEmpty());
	EXPECT_EQ(result.documents, 2U);
	EXPECT_EQ(result.entries, 2U);
	EXPECT_EQ(result.packages, 5U) << "two full packages and three diff packages, each once";
	EXPECT_EQ(result.bytes, fs::file_size(Package(3)) + fs::file_size(Package(4)) + fs::file_size(Diff(2)) +
	                            fs::file_size(Diff(3)) + fs::file_size(Diff(4)));
	EXPECT_EQ(result.removable_files, 0U);
	EXPECT_FALSE(result.is_publishing);
}

TEST_F(CheckingRepository, CountsWhatPruneWouldRemoveWithoutComplaint) {
	options_.keep_diffs = 0;
	PublishUpTo(4);
	const publisher::CheckResult result = Check();
	EXPECT_THAT(result.problems, IsEmpty());
	EXPECT_EQ(result.removable_files, 2U);
	EXPECT_EQ(result.removable_bytes, fs::file_size(Package(1)) + fs::file_size(Package(2)));
}

TEST_F(CheckingRepository, FindsAPackageThatIsMissingOrDamaged) {
	PublishUpTo(3);
	const std::string diff = ReadFile(Diff(2));
	fs::remove(Diff(2));
	EXPECT_THAT(Problems(), ElementsAre("broken: database_info/1, db: the package " + Diff(2) + " is missing"));
	std::string damaged = diff;
	damaged.back() = static_cast<char>(damaged.back() ^ 1);
	WriteFile(Diff(2), damaged);
	EXPECT_THAT(Problems(), ElementsAre(HasSubstr("broken: database_info/1, db: the package " + Diff(2))));
	check_.keys.clear();
	EXPECT_THAT(Problems(), IsEmpty()) << "the last byte is the payload's";
	fs::copy_file(Diff(3), Diff(2), fs::copy_options::overwrite_existing);
	EXPECT_THAT(Problems(), Contains(HasSubstr("is not the diff package of version 2 of db")));
}

TEST_F(CheckingRepository, TrustsNoOtherKey) {
	PublishUpTo(1);
	archive::GenerateKeyFiles(directory_ / "other");
	check_.keys = {directory_ / "other.pub"};
	EXPECT_THAT(Problems(), ElementsAre(HasSubstr("has no signature by a trusted key")));
	check_.keys.push_back(PublicKey());
	EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(CheckingRepository, FindsSizesLinksAndChainsThatAreWrong) {
	PublishUpTo(4);
	const std::string size = std::to_string(fs::file_size(Diff(3)));
	ChangeEntry([](Json::Value& entry) {
		entry["diff_files"]["3"]["file_size"] = 17;
		entry["download_link"] = "http://updates.example/base/packages/db/db_v3.tarn";
		entry["last_fetch_time"] = "now";
	});
	EXPECT_THAT(Problems(), ::testing::UnorderedElementsAre(
	                            "broken: database_info/1, db: \"last_fetch_time\" is no number that devices read",
	                            "broken: database_info/1, db: the link "
	                            "\"http://updates.example/base/packages/db/db_v3.tarn\" does not lead "
	                            "to packages/db/db_v4.tarn",
	                            "broken: database_info/1, db: the package packages/db/db_d3.tarn has " + size +
	                                " bytes, and the document says 17"));
	ChangeEntry([](Json::Value& entry) { entry["diff_files"].removeMember("3"); });
	EXPECT_THAT(Problems(), AllOf(Contains("broken: database_info/1, db: no diff package leads to version 3"),
	                            Contains("untidy: packages/db/db_d3.tarn: no document names it")));
	ChangeEntry([](Json::Value& entry) { entry["diff_files"].removeMember("4"); });
	EXPECT_THAT(Problems(), Contains(HasSubstr("the diff packages lead to version 2 and not to version 4")));
	ChangeEntry([](Json::Value& entry) { entry["diff_files"]["x"] = 1; });
	EXPECT_THAT(Problems(), Contains(HasSubstr("\"diff_files\" holds what devices cannot read")));
}

TEST_F(CheckingRepository, FindsDocumentsThatCannotBeRead) {
	PublishUpTo(2);
	WriteFile(options_.repository + "/database_info/2", "{");
	EXPECT_THAT(Problems(), ElementsAre(HasSubstr("broken: database_info/2: The document ")));
	fs::remove(options_.repository + "/database_info/2");
	ChangeEntry([](Json::Value& entry) { entry["data_version"] = 2; });
	EXPECT_THAT(Problems(), ElementsAre(HasSubstr("broken: database_info/1, db: The document ")));
	ChangeEntry([](Json::Value& entry) {
		entry["data_version"] = "2";
		entry["note"] = std::string(kLargestDocument, 'x');
	});
	EXPECT_THAT(Problems(), ElementsAre(AllOf(HasSubstr("broken: database_info/1: its 2"),
	                            HasSubstr(" are more than the 2097152 that devices read"))));
	fs::remove_all(options_.repository + "/database_info");
	EXPECT_THAT(
	    Problems(), ElementsAre("broken: database_info: there is no document",
	                    "untidy: packages/db: no document names this database, so its next publication is refused"));
}

TEST_F(CheckingRepository, MissesDocumentsThatDevicesAskFor) {
	const std::string missing = ": the document is missing; where devices ask for others only, --document names these";
	PublishUpTo(2);
	options_.db_version = "canary";
	PublishUpTo(3);
	fs::remove(options_.repository + "/database_info/1");
	EXPECT_THAT(Problems(), ElementsAre("broken: database_info/1" + missing));
	check_.documents = {"canary"};
	EXPECT_THAT(Problems(), IsEmpty());
	check_.documents = {"3", "canary", "3"};
	EXPECT_THAT(Problems(), ElementsAre("broken: database_info/3" + missing));
	check_.documents = {"../database_info/canary"};
	EXPECT_THROW(Problems(), publisher::UsageError);
}

TEST_F(CheckingRepository, FindsLinksOfOneDocumentToSeveralPlaces) {
	PublishUpTo(2);
	options_.url = "https://updates.example/base";
	PublishUpTo(3);
	EXPECT_THAT(Problems(), IsEmpty()) << "devices may change over to https one by one";
	options_.db_version = "canary";
	options_.url = "https://canaries.example";
	options_.keep_diffs = 0;
	PublishUpTo(4);
	EXPECT_THAT(Problems(), IsEmpty()) << "each document has a place of its own";
	options_.keep_diffs.reset();
	options_.url = "https://canarise.example";
	PublishUpTo(5);
	options_.url = "https://canaries.example/";
	PublishUpTo(6);
	EXPECT_THAT(Problems(),
	    ElementsAre("untidy: database_info/canary: its links begin with different URLs: https://canaries.example (2), "
	                "https://canarise.example (1); unless all of them lead here, mend the links by restore --force "
	                "--url URL"));
}

TEST_F(CheckingRepository, FindsWhatLiesAround) {
	PublishUpTo(2);
	fs::copy_file(Package(2), Package(7));
	WriteFile(options_.repository + "/packages/db/notes", "mine");
	WriteFile(options_.repository + "/packages/db/db_v002.tarn", "mine");
	WriteFile(options_.repository + "/packages/.tarndbudpub-x.part", "left");
	WriteFile(options_.repository + "/database_info/.damaged-1", "kept by restore");
	const publisher::CheckResult result = Check();
	EXPECT_EQ(result.broken, 0U);
	EXPECT_EQ(result.untidy, 4U);
	EXPECT_THAT(Problems(),
	    ::testing::UnorderedElementsAre(StartsWith("untidy: packages/db/db_v7.tarn: no document names it: "),
	        StartsWith("untidy: packages/db/notes: "), StartsWith("untidy: packages/db/db_v002.tarn: "),
	        StartsWith("untidy: packages/.tarndbudpub-x.part: ")));
}

TEST_F(CheckingRepository, LeavesWhatLiesAroundToARunningPublisher) {
	PublishUpTo(1);
	WriteFile(options_.repository + "/packages/.tarndbudpub-x.part", "being written");
	fs::copy_file(Package(1), Package(2));
	const UniqueFd lock(open((options_.repository + "/.tarndbudpub.lock").c_str(), O_RDWR | O_CLOEXEC));
	ASSERT_EQ(flock(lock.Get(), LOCK_EX), 0);
	EXPECT_THAT(Problems(), IsEmpty());
	EXPECT_TRUE(Check().is_publishing);
	WriteFile(Package(1), "damaged");
	EXPECT_THAT(Problems(), ElementsAre(HasSubstr("broken: ")));
}

TEST_F(CheckingRepository, CountsProblemsThatItNoLongerLists) {
	EXPECT_EQ(publisher::kMostProblems, 1'000U);
	PublishUpTo(1);
	for (std::size_t number = 0; number < publisher::kMostProblems + 5; ++number) {
		WriteFile(options_.repository + "/packages/db/" + std::to_string(number), "");
	}
	const publisher::CheckResult result = Check();
	EXPECT_EQ(result.untidy, publisher::kMostProblems + 5);
	EXPECT_EQ(result.problems.size(), publisher::kMostProblems);
}

TEST_F(CheckingRepository, CommandTellsBrokenFromUntidyByItsExitCode) {
	const auto run = [this] {
		std::ostringstream out;
		return publisher::RunCommandLine({"check-repo", "--repo", options_.repository}, out, out, false);
	};
	EXPECT_EQ(run(), publisher::kFailed);
	PublishUpTo(2);
	EXPECT_EQ(run(), publisher::kDone);
	WriteFile(options_.repository + "/packages/db/notes", "mine");
	EXPECT_EQ(run(), publisher::kUntidy);
	fs::remove(Diff(2));
	EXPECT_EQ(run(), publisher::kBroken);
}

TEST_F(CheckingRepository, CommandCountsInPlainEnglish) {
	const auto run = [this](std::vector<std::string> more) {
		more.insert(more.begin(), {"check-repo", "--repo", options_.repository});
		std::ostringstream out;
		static_cast<void>(publisher::RunCommandLine(more, out, out, false));
		return out.str();
	};
	options_.keep_diffs = 0;
	PublishUpTo(1);
	EXPECT_THAT(run({}), AllOf(StartsWith("ok: 1 document, 1 package ("), HasSubstr("would remove 0 files (0 B).")));
	options_.db_version = "canary";
	PublishUpTo(3);
	EXPECT_THAT(run({"--document", "canary", "--document", "1"}), StartsWith("ok: 2 documents, 2 packages ("));
	EXPECT_THAT(run({"--document", "2"}), StartsWith("broken: database_info/2: "));
	fs::remove(options_.repository + "/database_info/1");
	EXPECT_THAT(run({}), StartsWith("broken: database_info/1: "));
	EXPECT_THAT(
	    run({"--document", "canary"}), AllOf(StartsWith("ok: 1 document, "), HasSubstr("would remove 1 file (")));
}

class RolloutFile : public RepositoryCare {
protected:
	RolloutFile() {
		rollout_.channel = "canary";
		rollout_.percent = "5";
		rollout_.conf_file = directory_ / "rollout.conf";
	}

	std::string Error() {
		try {
			publisher::Rollout(rollout_);
			return "";
		} catch (const std::exception& error) {
			return error.what();
		}
	}

	publisher::RolloutOptions rollout_;
};

TEST_F(RolloutFile, TakesPercentagesOfTwoDecimals) {
	const std::map<std::string, int> shares = {
	    {"0", 0}, {"0.01", 1}, {"0.1", 10}, {"12.34", 1234}, {"12.30", 1230}, {"99.99", 9999}, {"100", 10000}};
	for (const auto& [text, share] : shares) {
		EXPECT_EQ(publisher::ParsePercent(text), share) << text;
	}
	for (const char* text : {"", "-1", "+1", "1.234", "100.01", "101", "1.", ".5", "1,5", "5%", " 5", "1e1", "nan",
	         "99999999999", "1.2.3", "0x1"}) {
		EXPECT_THROW(static_cast<void>(publisher::ParsePercent(text)), publisher::UsageError) << text;
	}
	EXPECT_EQ(publisher::PercentText(1230), "12.3");
	EXPECT_EQ(publisher::PercentText(1), "0.01");
	EXPECT_EQ(publisher::PercentText(10000), "100");
}

TEST_F(RolloutFile, SaysWhoMadeItAndReplacesNoOther) {
	EXPECT_EQ(Error(), "");
	EXPECT_THAT(ReadFile(rollout_.conf_file), StartsWith("# Made by tarndbudpub rollout"));
	EXPECT_THAT(ReadFile(rollout_.conf_file), HasSubstr("\t5% /database_info/canary;\n\t* /database_info/1;\n"));
	rollout_.percent = "0";
	EXPECT_EQ(Error(), "");
	EXPECT_THAT(ReadFile(rollout_.conf_file), Not(HasSubstr("canary;")));
	rollout_.percent = "100";
	EXPECT_EQ(Error(), "");
	EXPECT_THAT(ReadFile(rollout_.conf_file), HasSubstr("{\n\t* /database_info/canary;\n}"));
	WriteFile(rollout_.conf_file, "user root;\n");
	EXPECT_THAT(Error(), HasSubstr("was not made by tarndbudpub, so it is not replaced"));
	EXPECT_EQ(ReadFile(rollout_.conf_file), "user root;\n");
	rollout_.conf_file = directory_ / "missing/rollout.conf";
	EXPECT_THAT(Error(), HasSubstr("There is no directory for "));
}

TEST_F(RolloutFile, KeepsALinkToIt) {
	EXPECT_EQ(Error(), "");
	fs::create_symlink("rollout.conf", directory_ / "link.conf");
	rollout_.conf_file = directory_ / "link.conf";
	rollout_.percent = "7";
	EXPECT_EQ(Error(), "");
	EXPECT_TRUE(fs::is_symlink(directory_ / "link.conf"));
	EXPECT_THAT(ReadFile(directory_ / "rollout.conf"), HasSubstr("7% "));
}

TEST_F(RolloutFile, IsRefusedForAChannelThatLacksWhatTheDocumentNames) {
	rollout_.repository = options_.repository;
	EXPECT_THAT(Error(), HasSubstr("is no directory that can be read"));
	PublishUpTo(1);
	EXPECT_THAT(Error(), HasSubstr("database_info/canary cannot be read"));
	options_.db_version = "canary";
	PublishUpTo(2);
	EXPECT_EQ(Error(), "");
	options_.db_version = "1";
	PublishUpTo(3);
	EXPECT_THAT(Error(), AllOf(HasSubstr("names the older version 2 of db, of which 1 names version 3"),
	                         HasSubstr("\"tarndbudpub promote db --repo " + options_.repository +
	                                   " --from 1 --to canary --key FILE\"")));
	rollout_.percent = "0";
	EXPECT_EQ(Error(), "") << "the way back is always open";
	rollout_.channel = "1";
	EXPECT_THAT(Error(), HasSubstr("are both \"1\""));
	rollout_.channel = "can ary;";
	EXPECT_THROW(publisher::Rollout(rollout_), publisher::UsageError);
}

TEST_F(RolloutFile, IsRefusedForAChannelThatLacksADatabase) {
	rollout_.repository = options_.repository;
	PublishUpTo(1);
	fs::copy_file(options_.repository + "/database_info/1", options_.repository + "/database_info/canary");
	EXPECT_EQ(Error(), "");
	options_.id = "other";
	PublishUpTo(2);
	EXPECT_THAT(Error(), AllOf(HasSubstr("names no version of other, of which 1 names version 1"),
	                         HasSubstr("\"tarndbudpub promote other ")));
	rollout_.percent = "0";
	EXPECT_EQ(Error(), "") << "the way back is always open";
}

} // namespace

} // namespace tarn::test
