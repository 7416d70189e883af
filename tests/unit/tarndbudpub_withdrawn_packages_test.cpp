// What a withdrawal leaves in a repository: marks and full packages of withdrawn versions, and emptied diff packages.
#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/channels.h"
#include "publisher/releases/check_repository.h"
#include "publisher/releases/prune.h"
#include "withdraw_fixture.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

namespace tarn::test {

namespace {

constexpr uid_t kSomebody = 12345;

/** Versions 1 and 2 are good, version 3 is bad. */
class WithdrawnPackages : public WithdrawTest {
protected:
	WithdrawnPackages() {
		options_.level = 1;
		PublishAs("good");
		PublishAs("better");
		PublishAs("bad");
	}

	void PublishAs(const std::string& content) {
		Put("list", content);
		Publish();
	}
	void Promote(const std::string& from, const std::string& to) {
		publisher::PromoteOptions promote;
		promote.repository = options_.repository;
		promote.id = "db";
		promote.from = from;
		promote.to = to;
		promote.keys = {PublicKey()};
		publisher::Promote(promote, observer_);
	}
	/** A withdrawal that ends when its packages and marks are in place, and its document is not. */
	void StopBeforeTheDocument() {
		const publisher::PublishObserver before = observer_;
		observer_.step = [this](const std::string&, std::uint64_t, std::uint64_t) {
			fs::create_directories(options_.repository + "/database_info/.tarndbudpub-1.part");
		};
		EXPECT_THAT(WithdrawError(2), HasSubstr("database_info/.tarndbudpub-1.part could not be created"));
		observer_ = before;
	}

	std::string Directory() const { return options_.repository + "/packages/db"; }
	std::string HiddenDirectory() const { return Directory() + "/.withdrawn"; }
	std::string Hidden(int version) const { return HiddenDirectory() + "/db_v" + std::to_string(version) + ".tarn"; }
	/** The names of what lies among the withdrawn packages, in byte order. */
	std::vector<std::string> Kept() const {
		std::vector<std::string> names;
		for (const auto& [name, content] : FilesBelow(HiddenDirectory())) {
			names.push_back(name);
		}
		return names;
	}
};

TEST_F(WithdrawnPackages, StayUntilTheLastChannelHasMovedOn) {
	const std::string bad = ReadFile(Package(3));
	Promote("1", "canary");
	Withdraw(2);
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn.by4"));
	PublishAs("best");
	EXPECT_TRUE(fs::exists(Package(3))) << "the canary names it";
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn.by4"));
	Promote("1", "canary");
	EXPECT_FALSE(fs::exists(Package(3)));
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn"));
	EXPECT_EQ(ReadFile(Hidden(3)), bad);
}

TEST_F(WithdrawnPackages, AreNotPublishedAgainWhileAnotherChannelKeepsThem) {
	Promote("1", "canary");
	Withdraw(2);
	EXPECT_THAT(PublishError(), HasSubstr("the tree has the content of version 3 of db, which was withdrawn"));
	EXPECT_EQ(Newest(), 4);
	options_.even_withdrawn = true;
	Publish();
	options_.even_withdrawn = false;
	Publish();
	EXPECT_EQ(Newest(), 6) << "the content is offered again";
}

TEST_F(WithdrawnPackages, AreNotLookedForWhereADocumentIsDamaged) {
	WriteFile(options_.repository + "/database_info/canary", "damaged");
	EXPECT_THAT(PublishError(), HasSubstr("database_info/canary"));
	EXPECT_THAT(warnings_, IsEmpty()) << "nothing is published without a comparison";
}

TEST_F(WithdrawnPackages, StayWhenTheWithdrawalWasNeverPublished) {
	PublishAs("worse");
	StopBeforeTheDocument();
	EXPECT_EQ(Newest(), 4);
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn.by5", "db_v4.tarn.by5"));
	options_.data_version = 6; // past what the withdrawal left
	Publish();
	EXPECT_EQ(Newest(), 6) << "version 4 was not withdrawn";
	EXPECT_THAT(Kept(), IsEmpty());
	options_.data_version.reset();
	PublishAs("next");
	EXPECT_TRUE(fs::exists(Package(3)) && fs::exists(Package(4)));
}

TEST_F(WithdrawnPackages, AreTakenAwayWhenTheWithdrawalIsRunAgain) {
	StopBeforeTheDocument();
	Withdraw(2);
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn"));
	EXPECT_FALSE(fs::exists(Package(3)));
}

TEST_F(WithdrawnPackages, AreToldFromThoseOfALaterWithdrawalThatWasNeverPublished) {
	Promote("1", "canary");
	Withdraw(2);
	PublishAs("worse");
	StopBeforeTheDocument();
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn.by4", "db_v3.tarn.by6", "db_v4.tarn.by6", "db_v5.tarn.by6"));
	options_.data_version = 7;
	PublishAs("other");
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn.by4"));
	Promote("1", "canary");
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn"));
	EXPECT_TRUE(fs::exists(Package(4)) && fs::exists(Package(5)));
}

TEST_F(WithdrawnPackages, AreLeftAloneWhileNoDocumentNamesTheDatabase) {
	Promote("1", "canary");
	Withdraw(2);
	fs::remove_all(options_.repository + "/database_info");
	publisher::Repository(options_.repository, [] {}).Clean("db");
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn.by4"));
	EXPECT_TRUE(fs::exists(Package(3)));
}

/** As between the two steps of taking a package away. */
TEST_F(WithdrawnPackages, NeedNoMarkAnyMore) {
	Withdraw();
	const std::string bad = ReadFile(Hidden(3));
	WriteFile(Hidden(3) + ".by4", "");
	PublishAs("best");
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn"));
	EXPECT_EQ(ReadFile(Hidden(3)), bad);
}

TEST_F(WithdrawnPackages, BelongToTheOwnerOfTheOthers) {
	if (geteuid() != 0) {
		GTEST_SKIP() << "only root can give a directory away";
	}
	const int given = chown(Directory().c_str(), kSomebody, kSomebody + 1);
	if (given != 0 && errno == EINVAL) {
		GTEST_SKIP() << "nothing can be given away in a user namespace that maps one user only";
	}
	ASSERT_EQ(given, 0) << std::strerror(errno);
	const auto expect_given = [this] {
		struct stat status {};
		ASSERT_EQ(stat(HiddenDirectory().c_str(), &status), 0);
		EXPECT_EQ(status.st_uid, kSomebody);
		EXPECT_EQ(status.st_gid, kSomebody + 1);
		EXPECT_EQ(status.st_mode & 0777U, 0700U);
	};
	Withdraw();
	expect_given();
	ASSERT_EQ(chown(HiddenDirectory().c_str(), 0, 0), 0); // as a publisher that was killed leaves it
	PublishAs("worse");
	Withdraw(2);
	expect_given();
	fs::remove_all(HiddenDirectory());
	fs::create_directory_symlink(directory_.Path(), HiddenDirectory());
	PublishAs("worst");
	EXPECT_THAT(WithdrawError(2), HasSubstr("could not be given to the owner of " + Directory()));
	EXPECT_EQ(Newest(), 7);
}

/** The next number is taken by a publication that was killed before its document. */
class LeftPackage : public WithdrawnPackages {
protected:
	LeftPackage() {
		const std::string document = options_.repository + "/database_info/1";
		const std::string before = ReadFile(document);
		PublishAs("worse");
		WriteFile(document, before);
	}
};

TEST_F(LeftPackage, IsPassedByAWithdrawalWithANumber) {
	const std::string left = ReadFile(Package(4));
	EXPECT_THAT(WithdrawError(), HasSubstr("Go past it by --data-version 5"));
	EXPECT_EQ(Newest(), 3);
	options_.data_version = 3;
	EXPECT_THAT(WithdrawError(), HasSubstr("is not above version 3"));
	options_.data_version = 5;
	EXPECT_EQ(Withdraw().published.data_version, 5);
	EXPECT_EQ(Newest(), 5);
	EXPECT_EQ(InstalledFrom(Package(5)), InstalledFrom(Package(2)));
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	EXPECT_THAT(warnings_, Contains(HasSubstr("Version 5 has no diff package: devices have version 3")));
	EXPECT_EQ(ReadFile(Package(4)), left);
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn"));
}

TEST_F(LeftPackage, IsPassedByTheCommand) {
	const auto run = [this](const std::string& version) {
		std::ostringstream out;
		return publisher::RunCommandLine({"withdraw", "db", "--repo", options_.repository, "--key", options_.key_file,
		                                     "--level", "1", "--data-version", version},
		    out, out, false);
	};
	EXPECT_EQ(run("-1"), publisher::kUsage);
	EXPECT_EQ(run("2147483648"), publisher::kUsage);
	EXPECT_EQ(run("4"), publisher::kFailed);
	EXPECT_EQ(Newest(), 3);
	EXPECT_EQ(run("9"), publisher::kDone);
	EXPECT_EQ(Newest(), 9);
}

/** The canary is two versions ahead of the default. */
class ChannelAhead : public WithdrawnPackages {
protected:
	ChannelAhead() {
		Promote("1", "canary");
		options_.db_version = "canary";
		PublishAs("trial");
		PublishAs("second trial");
	}
};

TEST_F(ChannelAhead, LeavesTheOthersWithdrawalWithoutDiffPackages) {
	options_.db_version = "1";
	EXPECT_EQ(Withdraw(2).published.data_version, 6);
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	EXPECT_THAT(warnings_, Contains(HasSubstr("Version 6 has no diff package: devices have version 3")));
	EXPECT_TRUE(fs::exists(Package(5))) << "the trial goes on";
}

TEST_F(ChannelAhead, GivesDiffPackagesWhenItIsWithdrawnFirst) {
	Withdraw(2);
	Promote("canary", "1");
	EXPECT_EQ(Newest(), 6);
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2, 3, 4, 5, 6));
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn", "db_v4.tarn", "db_v5.tarn"));
	for (const int version : {1, 2}) {
		Follower device(PublicKey());
		device.tree.Install(Package(version));
		device.version = version;
		Update(device);
		EXPECT_EQ(device.full_packages, 0);
		ExpectNewest(device);
	}
}

/** What check-repo and prune make of what a withdrawal leaves. */
class CareAfterWithdrawing : public WithdrawnPackages {
protected:
	CareAfterWithdrawing() {
		bad_ = ReadFile(Diff(3));
		check_.repository = options_.repository;
	}

	/** "where: what" of each problem. */
	std::vector<std::string> Problems() {
		std::vector<std::string> problems;
		for (const publisher::RepositoryProblem& problem : publisher::CheckRepository(check_, observer_).problems) {
			problems.push_back(problem.where + ": " + problem.what);
		}
		return problems;
	}
	std::vector<std::string> Pruned() {
		publisher::PruneOptions prune;
		prune.repository = options_.repository;
		std::vector<std::string> names;
		for (const publisher::PruneResult::File& file : publisher::Prune(prune, observer_).files) {
			names.push_back(fs::path(file.path).filename().string());
		}
		return names;
	}
	std::string Empty() const { return Directory() + "/db_d3w4.tarn"; }

	std::string bad_; // the diff package to the bad version
	publisher::RepositoryCheckOptions check_;
};

TEST_F(CareAfterWithdrawing, TellsEmptiedDiffsFromWhatTheyReplace) {
	Withdraw();
	WriteFile(Diff(3), bad_); // as when the publisher is killed before it removes the package
	EXPECT_THAT(Problems(), ElementsAre("packages/db/db_d3.tarn: no document names it"));
	EXPECT_THAT(Pruned(), ::testing::UnorderedElementsAre("db_d3.tarn", "db_v3.tarn"));
	EXPECT_TRUE(fs::exists(Empty()));
	EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(CareAfterWithdrawing, CountsWhatPruningRemoves) {
	Withdraw();
	WriteFile(Diff(3), bad_);
	WriteFile(HiddenDirectory() + "/.tarndbudpub-db_v3.tarn.by5.part", "left");
	WriteFile(options_.repository + "/.tarndbudpub-work-x/new/file", "12345");
	const publisher::CheckResult counted = publisher::CheckRepository(check_, observer_);
	publisher::PruneOptions prune;
	prune.repository = options_.repository;
	prune.dry_run = true;
	const publisher::PruneResult planned = publisher::Prune(prune, observer_);
	EXPECT_EQ(planned.files.size(), 4U);
	EXPECT_EQ(counted.removable_files, planned.files.size());
	EXPECT_EQ(counted.removable_bytes, planned.bytes);
	WriteFile(options_.repository + "/database_info/2", "damaged, so that prune refuses");
	EXPECT_EQ(publisher::CheckRepository(check_, observer_).removable_files, 0U);
}

TEST_F(CareAfterWithdrawing, KeepsEmptiedDiffsBesideWhatAnotherChannelNames) {
	Promote("1", "canary");
	Withdraw(2);
	EXPECT_THAT(Problems(), IsEmpty());
	EXPECT_THAT(Pruned(), IsEmpty());
	EXPECT_TRUE(fs::exists(Empty()) && fs::exists(Diff(3)));
	EXPECT_THAT(Kept(), ElementsAre("db_v3.tarn.by4"));
}

TEST_F(CareAfterWithdrawing, CountsEmptiedDiffsToTheirWithdrawal) {
	StopBeforeTheDocument();
	const std::string empty = ReadFile(Empty());
	const std::string why =
	    ": no document names it: a publisher was killed before its document, or the document is an old copy";
	EXPECT_THAT(
	    Problems(), ::testing::UnorderedElementsAre("packages/db/db_d3w4.tarn" + why, "packages/db/db_d4.tarn" + why,
	                    "packages/db/db_v4.tarn" + why, HasSubstr("database_info/.tarndbudpub-1.part: ")));
	EXPECT_THAT(Pruned(), ElementsAre(".tarndbudpub-1.part"));
	EXPECT_TRUE(fs::exists(Empty()));
	options_.data_version = 5;
	PublishAs("other");
	WriteFile(Empty(), empty);
	EXPECT_THAT(Problems(), ElementsAre("packages/db/db_d3w4.tarn: no document names it"));
	EXPECT_THAT(Pruned(), Contains("db_d3w4.tarn"));
	EXPECT_FALSE(fs::exists(Empty()));
}

TEST_F(CareAfterWithdrawing, SeesLeftoversAmongWithdrawnPackages) {
	Withdraw();
	WriteFile(HiddenDirectory() + "/.tarndbudpub-db_v3.tarn.by5.part", "left");
	EXPECT_THAT(Problems(), ElementsAre(StartsWith("packages/db/.withdrawn/.tarndbudpub-db_v3.tarn.by5.part: a ")));
	EXPECT_THAT(Pruned(), Contains(".tarndbudpub-db_v3.tarn.by5.part"));
	EXPECT_THAT(Problems(), IsEmpty());
	EXPECT_THAT(Kept(), IsEmpty());
}

TEST_F(CareAfterWithdrawing, NeedsNoRightToReadWithdrawnPackages) {
	if (geteuid() != 0) {
		GTEST_SKIP() << "only root can become another user";
	}
	Withdraw();
	fs::permissions(directory_.Path(), fs::perms(0755));
	const pid_t child = fork();
	if (child == 0) {
		const bool is_other = setresuid(kSomebody, kSomebody, kSomebody) == 0;
		_exit(!is_other ? 2 : Problems().empty() ? 0 : 1);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	ASSERT_TRUE(WIFEXITED(status));
	if (WEXITSTATUS(status) == 2) {
		GTEST_SKIP() << "this namespace has one user only";
	}
	EXPECT_EQ(WEXITSTATUS(status), 0);
}

/** What changes tells where full packages are missing. The file "list" has 4, 6 and 3 bytes in versions 1 to 3. */
class ChangesAcrossWithdrawals : public WithdrawnPackages {
protected:
	/** The sizes of changed files, or what is thrown. */
	std::string Changes(int from, int to) {
		publisher::ChangesOptions options;
		options.repository = options_.repository;
		options.id = "db";
		options.keys = {PublicKey()};
		options.from = from;
		options.to = to;
		try {
			std::string text;
			for (const publisher::FileChange& file : publisher::FindChanges(options, observer_).files) {
				text += file.name + " " + std::to_string(file.before.value().size) + " " +
				        std::to_string(file.after.value().size);
			}
			return text;
		} catch (const publisher::PublishError& error) {
			return error.what();
		}
	}
};

TEST_F(ChangesAcrossWithdrawals, FollowEmptiedLinks) {
	Withdraw();
	EXPECT_EQ(Changes(1, 4), "list 4 6");
	fs::remove(Package(4));
	EXPECT_EQ(Changes(1, 4), "list 4 6") << "from the kept package of version 3";
	EXPECT_EQ(Changes(2, 3), "list 6 3");
	fs::remove(Hidden(3));
	EXPECT_EQ(Changes(1, 4), "list 4 6") << "from the package of version 2";
	EXPECT_EQ(Changes(2, 4), "");
}

TEST_F(ChangesAcrossWithdrawals, KnowAWithdrawnVersionByItsFullPackageOnly) {
	Withdraw();
	fs::remove(Hidden(3));
	EXPECT_EQ(Changes(2, 3), "Version 3 of db cannot be made from the packages that are kept: neither " + Package(3) +
	                             " nor " + Diff(3) + " is there: version 4 has withdrawn it.");
}

TEST_F(ChangesAcrossWithdrawals, TakeThePackageThatAnotherChannelKeeps) {
	Promote("1", "canary");
	Withdraw(2);
	fs::remove(Package(3));
	fs::remove(Package(4));
	EXPECT_EQ(Changes(2, 3), "list 6 3");
	EXPECT_EQ(Changes(2, 4), "");
	EXPECT_EQ(Changes(3, 4), "list 3 6");
}

TEST_F(ChangesAcrossWithdrawals, FollowAWithdrawalOfAWithdrawal) {
	Withdraw();
	Withdraw(3);
	for (const std::string& package : {Hidden(3), Hidden(4), Package(5)}) {
		ASSERT_TRUE(fs::remove(package)) << package;
	}
	EXPECT_EQ(Changes(2, 5), "list 6 3");
	EXPECT_THAT(Changes(2, 4), HasSubstr(" is there: version 5 has withdrawn it."));
}

/** As where somebody has lost a package: what is left of the new chain does not fit the old one. */
TEST_F(ChangesAcrossWithdrawals, MixNoChains) {
	PublishAs("worse");
	const std::string old = ReadFile(Diff(4));
	Withdraw(2);
	WriteFile(Diff(4), old);
	for (const std::string& package : {Hidden(3), Hidden(4), Package(5), Directory() + "/db_d4w5.tarn"}) {
		ASSERT_TRUE(fs::remove(package)) << package;
	}
	EXPECT_THAT(Changes(2, 5), HasSubstr(Diff(3) + " is there: version 5 has withdrawn it."));
}

} // namespace

} // namespace tarn::test
