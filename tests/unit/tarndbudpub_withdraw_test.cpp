// Versions that are withdrawn: what devices download, what the repository keeps, and publishers that are killed.
#include "base/document_limit.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/releases/restore.h"
#include "publisher/repository/withdrawn_packages.h"
#include "withdraw_fixture.h"

namespace tarn::test {

namespace {

class Withdrawing : public WithdrawTest {
protected:
	Withdrawing() {
		Put("list", "good\n");
		Put("old/file", "stays");
		Sql("base", "CREATE TABLE t(i INTEGER PRIMARY KEY, a); INSERT INTO t VALUES(1, 'good')");
		Publish();
		Put("list", "good\nbetter\n");
		Sql("base", "INSERT INTO t VALUES(2, 'better')");
		Publish();
	}

	void PublishBad(const std::string& text = "garbage") {
		Put("list", text);
		Put("new/" + text, Noise(3000, 7));
		fs::remove_all(TreePath("old"));
		Sql("base", "DELETE FROM t WHERE i = 1; INSERT INTO t VALUES(NULL, '" + text + "')");
		Publish();
	}
	/** A device that has installed a version by its full package. */
	std::unique_ptr<Follower> DeviceWith(int version) {
		auto device = std::make_unique<Follower>(PublicKey());
		device->tree.Install(Package(version));
		device->version = version;
		return device;
	}
	std::string Hidden(int version) const {
		return options_.repository + "/packages/db/.withdrawn/db_v" + std::to_string(version) + ".tarn";
	}
	void LoseAndRestoreDocument() const {
		fs::remove_all(options_.repository + "/database_info");
		publisher::RestoreOptions restore;
		restore.repository = options_.repository;
		restore.keys = {PublicKey()};
		restore.keep_diffs = options_.keep_diffs;
		publisher::Restore(restore, observer_);
	}
	Json::Value EntryOf() const { return Document()["db_list"]["db"]; }
};

TEST_F(Withdrawing, KeepsTheBadContentFromBeingPublishedAgain) {
	PublishBad();
	Withdraw();
	const auto before = FilesBelow(options_.repository);
	EXPECT_EQ(PublishError(), "Nothing is published: the tree has the content of version 3 of db, which was withdrawn; "
	                          "--even-withdrawn publishes it again.");
	EXPECT_EQ(FilesBelow(options_.repository), before);
	Put("new/garbage", Noise(3000, 8));
	EXPECT_EQ(Publish().data_version, 5) << "other content of the same size";
	Put("new/garbage", Noise(3000, 7));
	options_.even_withdrawn = true;
	EXPECT_EQ(Publish().data_version, 6);
	options_.even_withdrawn = false;
	EXPECT_EQ(Publish().data_version, 7) << "the content is offered again";
}

TEST_F(Withdrawing, IsNotHeldAgainstContentThatAWithdrawalBroughtBack) {
	PublishBad();
	Withdraw();
	Withdraw(3);
	EXPECT_EQ(Publish().data_version, 6);
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(Withdrawing, LeadsHealthyDevicesPastTheBadVersion) {
	const auto healthy = DeviceWith(2);
	const auto files = healthy->tree.Files();
	PublishBad();
	const auto bad = DeviceWith(3);
	const publisher::WithdrawResult result = Withdraw();
	EXPECT_EQ(result.withdrawn, 3);
	EXPECT_EQ(result.restored, 2);
	EXPECT_EQ(result.published.data_version, 4);
	ASSERT_TRUE(result.published.diff) << ::testing::PrintToString(warnings_);
	EXPECT_EQ(PackagesFrom(2), (std::vector<std::string>{options_.repository + "/packages/db/db_d3w4.tarn", Diff(4)}));
	EXPECT_THAT(NamedBy(3), IsEmpty());
	for (const auto& [name, kind] : KindsIn(4)) {
		EXPECT_THAT(kind, ::testing::AnyOf("whole", "none", "dir")) << name;
	}
	EXPECT_FALSE(fs::exists(Diff(3)));
	for (Follower* device : {healthy.get(), bad.get()}) {
		Update(*device);
		EXPECT_EQ(device->full_packages, 0);
		ExpectNewest(*device);
		EXPECT_EQ(device->tree.Files(), files);
	}
}

TEST_F(Withdrawing, KeepsTheWithdrawnPackageWhereNoServerFindsIt) {
	PublishBad();
	const std::string content = ReadFile(Package(3));
	Withdraw();
	EXPECT_FALSE(fs::exists(Package(3)));
	EXPECT_EQ(ReadFile(Hidden(3)), content);
	EXPECT_EQ(fs::status(fs::path(Hidden(3)).parent_path()).permissions(), fs::perms::owner_all);
	EXPECT_EQ(EntryOf()["download_link"].asString(), options_.url + "/packages/db/db_v4.tarn");
}

TEST_F(Withdrawing, GoesBackSeveralVersions) {
	PublishBad("one");
	const auto first = DeviceWith(3);
	PublishBad("two");
	const auto second = DeviceWith(4);
	EXPECT_EQ(Withdraw(2).published.data_version, 5);
	for (Follower* device : {first.get(), second.get()}) {
		Update(*device);
		ExpectNewest(*device);
		EXPECT_EQ(device->full_packages, 0);
	}
	EXPECT_THAT(NamedBy(5), Contains("new/one"));
	EXPECT_EQ(InstalledFrom(Package(5)), InstalledFrom(Package(2)));
}

TEST_F(Withdrawing, BringsAWithdrawnVersionBack) {
	PublishBad();
	const auto content = InstalledFrom(Package(3));
	Withdraw();
	const auto healthy = DeviceWith(2);
	const auto withdrawn = DeviceWith(4);
	EXPECT_THAT(WithdrawError(), AllOf(HasSubstr("is itself a withdrawal"), HasSubstr("of version 2; --to")));
	EXPECT_EQ(Newest(), 4);
	Withdraw(3);
	EXPECT_EQ(InstalledFrom(Package(5)), content);
	for (Follower* device : {healthy.get(), withdrawn.get()}) {
		Update(*device);
		ExpectNewest(*device);
		EXPECT_EQ(device->full_packages, 0);
	}
}

TEST_F(Withdrawing, PublishesNothingWhenTheContentIsThereAlready) {
	PublishBad();
	Withdraw(2);
	const std::vector<std::string> files = RepositoryFiles();
	const Json::Value document = Document();
	const publisher::WithdrawResult again = Withdraw(2);
	EXPECT_TRUE(again.published.is_unchanged);
	EXPECT_EQ(again.published.data_version, 4);
	EXPECT_EQ(RepositoryFiles(), files);
	EXPECT_EQ(Document(), document);
	EXPECT_EQ(Withdraw(1).published.data_version, 5) << "another content";
	fs::remove(Package(5));
	EXPECT_EQ(Withdraw(1).published.data_version, 6) << "new devices find no full package of 5";
}

TEST_F(Withdrawing, RepeatsWhichChannelsStillNameTheBadVersion) {
	PublishBad();
	options_.db_version = "canary";
	Put("list", "worse");
	Publish();
	options_.db_version = "1";
	EXPECT_THAT(WithdrawError(), HasSubstr("which version is to come back: 1 (version 3), canary (version 4)."));
	options_.db_version = "canary";
	Withdraw(2);
	warnings_.clear();
	EXPECT_TRUE(Withdraw(2).published.is_unchanged);
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("database_info/1 still names version 3, which is withdrawn; promote "
	                                             "version 5 to")));
	options_.db_version = "canari";
	EXPECT_THAT(WithdrawError(2),
	    AllOf(HasSubstr("There is no document "), HasSubstr("those that name it: 1 (version 3), canary (version 5).")));
}

TEST_F(Withdrawing, LetsTheChainGoOnAfterwards) {
	PublishBad();
	Withdraw();
	const auto device = DeviceWith(2);
	Put("list", "good\nbetter\nbest\n");
	Put("old/file", "stays");
	fs::remove_all(TreePath("new"));
	ASSERT_TRUE(Publish().diff);
	EXPECT_EQ(OfferedDiffs(), (std::vector<int>{2, 3, 4, 5}));
	EXPECT_TRUE(fs::exists(options_.repository + "/packages/db/db_d3w4.tarn"));
	Update(*device);
	ExpectNewest(*device);
}

TEST_F(Withdrawing, RebuildsContentWithoutItsFullPackage) {
	const auto content = InstalledFrom(Package(2));
	PublishBad();
	fs::remove(Package(2));
	const auto result = Withdraw();
	EXPECT_TRUE(result.is_rebuilt);
	EXPECT_EQ(InstalledFrom(Package(4)).at("list"), content.at("list"));
	EXPECT_TRUE(result.published.diff) << ::testing::PrintToString(warnings_);
}

TEST_F(Withdrawing, NamesWhatIsMissingToRebuildContent) {
	PublishBad();
	fs::remove(Package(2));
	fs::remove(Package(1));
	EXPECT_THAT(WithdrawError(), AllOf(HasSubstr(Package(2)), HasSubstr("diff package to version 1 ")));
	EXPECT_EQ(Newest(), 3);
	EXPECT_FALSE(fs::exists(Package(4)));
}

TEST_F(Withdrawing, RefusesContentThatOnlyARemovedDiffPackageHeld) {
	PublishBad();
	Withdraw();
	fs::remove(Hidden(3));
	EXPECT_THAT(WithdrawError(3), AllOf(HasSubstr(Package(3)), HasSubstr("was withdrawn")));
	EXPECT_EQ(Newest(), 4);
}

TEST_F(Withdrawing, RefusesVersionsThatAreNotBelowTheNewest) {
	for (const std::int64_t version : {2, 3, -1}) {
		EXPECT_THAT(WithdrawError(version), HasSubstr("must be below version 2"));
	}
	options_.id = "other";
	EXPECT_THAT(WithdrawError(), HasSubstr("does not name other"));
}

TEST_F(Withdrawing, PublishesNothingInADocumentThatDevicesWouldNotRead) {
	PublishBad();
	Json::Value document = Document();
	document["extra"] = std::string(kLargestDocument, 'x');
	WriteFile(options_.repository + "/database_info/1", document.toStyledString());
	const auto before = FilesBelow(options_.repository);
	EXPECT_THAT(WithdrawError(), HasSubstr(" are more than the 2097152 that devices read"));
	EXPECT_EQ(FilesBelow(options_.repository), before);
}

TEST_F(Withdrawing, EndsTheChainWhereItCostsMoreThanTheFullPackage) {
	const auto healthy = DeviceWith(2);
	Put("bulk", Noise(20'000, 2)); // no file stays as it was
	PublishBad();
	Withdraw();
	EXPECT_THAT(warnings_.back(), HasSubstr("no smaller than the full package"));
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	Update(*healthy);
	EXPECT_EQ(healthy->full_packages, 1);
	ExpectNewest(*healthy);
}

TEST_F(Withdrawing, HasNoDiffPackagesUnlessTheyLeadToTheRestoredTree) {
	PublishBad();
	observer_.step = [this](const std::string& what, std::uint64_t done, std::uint64_t /*count*/) {
		if (what == "verifying" && done == 0) {
			ChangeInWorkDirectory(options_.repository, "restored/list");
		}
	};
	Withdraw();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("would get another \"list\" by it. Devices take the full package.")));
	EXPECT_EQ(Newest(), 4);
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	EXPECT_FALSE(fs::exists(Diff(4)));
}

TEST_F(Withdrawing, NamesUnchangedJournalsBesideWhatItReplaces) {
	for (const char* name : {"list-journal", "lost", "lost-journal", "bulk-journal"}) {
		Put(name, "a list");
	}
	Publish();
	fs::remove(TreePath("lost")); // whose journal no diff package names so far
	PublishBad();
	std::vector<std::unique_ptr<Follower>> devices;
	for (const int version : {2, 3, 4}) {
		devices.push_back(DeviceWith(version));
	}
	Withdraw();
	EXPECT_THAT(NamedBy(5), AllOf(Contains("list-journal"), Contains("lost-journal"), Not(Contains("bulk-journal"))));
	for (const auto& device : devices) {
		Update(*device);
		ExpectNewest(*device);
		EXPECT_EQ(device->full_packages, 0);
	}
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(Withdrawing, HasNoDiffPackagesThatDevicesWouldRefuse) {
	PublishBad();
	const publisher::PublishOptions options = options_;
	options_.repository = directory_ / "other";
	options_.data_version = 3;
	Put("list-journal", "of another program");
	Publish();
	const std::string other = Package(3);
	options_ = options;
	warnings_.clear();
	observer_.step = [&](const std::string& what, std::uint64_t done, std::uint64_t /*count*/) {
		if (what == "verifying" && done == 0) {
			fs::copy_file(other, Package(3), fs::copy_options::overwrite_existing);
		}
	};
	Withdraw();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("devices could not apply it: In the way of list: ")));
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
}

TEST_F(Withdrawing, IsRestoredToALostDocument) {
	PublishBad();
	Withdraw();
	const Json::Value document = Document();
	LoseAndRestoreDocument();
	EXPECT_EQ(Document(), document);
}

/** An empty link leads to the content of the withdrawal alone. */
TEST_F(Withdrawing, EmptyLinksAreNotRestoredWithoutTheirWithdrawal) {
	PublishBad();
	fs::copy(options_.repository, directory_ / "before", fs::copy_options::recursive);
	Withdraw();
	fs::copy(options_.repository + "/packages/db/db_d3w4.tarn", directory_ / "before/packages/db");
	options_.repository = directory_ / "before";
	LoseAndRestoreDocument();
	EXPECT_EQ(Newest(), 3);
	EXPECT_THAT(NamedBy(3), Contains("list"));
}

class KilledWithdrawing : public Withdrawing {
protected:
	KilledWithdrawing() {
		PublishBad();
		RememberRepository();
		Withdraw();
		expected_ = FilesBelow(options_.repository);
		document_ = Document();
	}
	/** Everything that the document names is there, and leads devices to the version that it names. */
	void ExpectServable() {
		ASSERT_THAT(Newest(), ::testing::AnyOf(3, 4));
		for (const int version : {1, 2}) {
			const auto device = DeviceWith(version);
			Update(*device);
			ExpectNewest(*device);
		}
		EXPECT_TRUE(fs::exists(Package(Newest())));
	}
	/** The same command again ends in the same repository. */
	void ExpectRepaired() {
		if (Newest() == 3) {
			Withdraw();
		} else {
			EXPECT_THAT(WithdrawError(), HasSubstr("is itself a withdrawal"));
		}
		EXPECT_EQ(Document(), document_);
		EXPECT_EQ(FilesBelow(options_.repository), expected_);
	}
	void ExpectWholeState() {
		ExpectServable();
		ExpectRepaired();
	}

	FixedTime time_{"1700000000"};
	std::map<std::string, std::string> expected_;
	Json::Value document_;
};

TEST_F(KilledWithdrawing, LeavesAWholeStateAtEveryStep) {
	const int runs = KilledAtEveryStep([this] { Withdraw(); }, [this] { ExpectWholeState(); });
	EXPECT_GT(runs, 4) << "fewer moments than there are steps";
}

TEST_F(KilledWithdrawing, IsFinishedByTheNextPublisher) {
	fs::rename(Hidden(3), Package(3)); // as between the document and the last step
	WriteFile(Hidden(3) + ".by4", "");
	Put("list", "next");
	Publish();
	EXPECT_FALSE(fs::exists(Package(3)));
	EXPECT_TRUE(fs::exists(Hidden(3)));
	EXPECT_FALSE(fs::exists(Hidden(3) + ".by4"));
}

TEST_F(KilledWithdrawing, KeepsTheBadContentFromBeingPublishedAgain) {
	fs::rename(Hidden(3), Package(3)); // as between the document and the last step
	WriteFile(Hidden(3) + ".by4", "");
	EXPECT_THAT(PublishError(), HasSubstr("the tree has the content of version 3 of db, which was withdrawn"));
	EXPECT_EQ(Newest(), 4);
}

TEST_F(KilledWithdrawing, TakesNoPackageAwayThatIsStillOffered) {
	BeginAgain();
	publisher::MarkWithdrawn(Package(3), 4); // as between the packages and the document
	Put("list", "next");
	Publish();
	EXPECT_TRUE(fs::exists(Package(3))) << "version 4 is another";
	EXPECT_TRUE(fs::is_empty(fs::path(Hidden(3)).parent_path()));
}

TEST_F(KilledWithdrawing, LeavesAWholeStateAtAnyMoment) {
	KilledAtMoments(
	    24, 3000, [this] { Withdraw(); }, [this] { ExpectWholeState(); });
}

} // namespace

} // namespace tarn::test
