// Wrong keys and URLs, which the last publication gives away.
#include "archive/signing_key.h"
#include "publisher/releases/restore.h"
#include "withdraw_fixture.h"

namespace tarn::test {

namespace {

class LastPublication : public WithdrawTest {
protected:
	LastPublication() {
		options_.level = 1;
		archive::GenerateKeyFiles(directory_ / "wrong");
		Publish();
		PublishNext();
	}

	void PublishNext() {
		Put("text", "version " + std::to_string(++version_));
		Publish();
	}
	void UseWrongKey() { options_.key_file = directory_ / "wrong.key"; }
	void UseRightKey() { options_.key_file = directory_ / "key.key"; }
	/** Publishes a version that the other key has signed. */
	void PublishForeign(const std::string& channel = "1") {
		UseWrongKey();
		options_.db_version = channel;
		options_.keep_diffs = 0;
		PublishNext();
		options_.keep_diffs.reset();
		options_.db_version = "1";
		UseRightKey();
	}
	/** What a command refuses that has changed no file. */
	void ExpectRefused(const std::string& package, const std::function<std::string()>& command) {
		const auto before = FilesBelow(options_.repository);
		const std::string error = command();
		EXPECT_THAT(error,
		    AllOf(StartsWith("Nothing is published: the package " + package + " has no signature by --key or an "),
		        HasSubstr("name the key that signed the package by --old-key"), HasSubstr("--keep-diffs 0")));
		EXPECT_EQ(FilesBelow(options_.repository), before);
		EXPECT_THAT(warnings_, IsEmpty());
	}
	void ExpectPublishRefused(const std::string& package) {
		Put("text", "refused");
		ExpectRefused(package, [this] { return PublishError(); });
	}
	std::string FullLink() const { return Document()["db_list"]["db"]["download_link"].asString(); }

	int version_ = 1;
};

TEST_F(LastPublication, RefusesAnotherKeyBeforeAnythingIsWritten) {
	UseWrongKey();
	ExpectPublishRefused(Package(2));
	options_.if_changed = true;
	ExpectPublishRefused(Package(2));
	options_.if_changed = false;
	options_.data_version = 9;
	ExpectPublishRefused(Package(2));
	options_.data_version.reset();
	options_.old_keys = {directory_ / "wrong.pub"};
	ExpectPublishRefused(Package(2));
	options_.old_keys = {PublicKey()};
	EXPECT_TRUE(Publish().diff);
}

TEST_F(LastPublication, LeavesAnotherKeyToWhoWantsNoDiffPackages) {
	PublishForeign();
	EXPECT_EQ(Newest(), 3);
	EXPECT_THAT(warnings_, IsEmpty());
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	ExpectPublishRefused(Package(3));
}

TEST_F(LastPublication, TellsNothingOfTheKeyByAPackageThatIsMissingOrDamaged) {
	std::string package = ReadFile(Package(2));
	package.back() = static_cast<char>(package.back() ^ 1);
	WriteFile(Package(2), package);
	PublishNext();
	EXPECT_THAT(warnings_, ElementsAre(AllOf(HasSubstr("Version 3 has no diff package: "), HasSubstr("is damaged"))));
	warnings_.clear();
	fs::remove(Package(3));
	UseWrongKey();
	PublishNext();
	EXPECT_THAT(warnings_, ElementsAre(AllOf(HasSubstr("Version 4 has no diff package: "), HasSubstr("is missing"))));
}

TEST_F(LastPublication, ChecksThePackageOfTheChannelThatItContinues) {
	UseWrongKey();
	options_.db_version = "new";
	ExpectPublishRefused(Package(2));
	PublishForeign("canary");
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("The document canary is new")));
	warnings_.clear();
	ExpectPublishRefused(Package(3));
}

TEST_F(LastPublication, IsNotWithdrawnByAnotherKey) {
	UseWrongKey();
	ExpectRefused(Package(2), [this] { return WithdrawError(); });
	const auto before = FilesBelow(options_.repository);
	options_.keep_diffs = 0;
	EXPECT_EQ(WithdrawError(), "Version 1 of db cannot come back: its package " + Package(1) +
	                               " has no signature by --key or an --old-key; name the key that signed it by "
	                               "--old-key.");
	EXPECT_EQ(FilesBelow(options_.repository), before);
}

TEST_F(LastPublication, IsWithdrawnWithoutTrustWhereNoDiffPackagesAreMade) {
	PublishForeign();
	ExpectRefused(Package(3), [this] { return WithdrawError(); });
	options_.keep_diffs = 0;
	const publisher::WithdrawResult result = Withdraw();
	EXPECT_EQ(result.restored, 2);
	EXPECT_EQ(result.published.data_version, 4);
	EXPECT_EQ(InstalledFrom(Package(4)), InstalledFrom(Package(2)));
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(LastPublication, WarnsOfAnotherUrl) {
	options_.url += "/";
	PublishNext();
	EXPECT_THAT(warnings_, IsEmpty()) << "the same place";
	options_.url = "http://updates.exmaple/base";
	options_.if_changed = true;
	Publish();
	EXPECT_THAT(warnings_, IsEmpty()) << "nothing is published";
	PublishNext();
	EXPECT_THAT(warnings_,
	    ElementsAre("The URL http://updates.exmaple/base differs from http://updates.example/base/, which the last "
	                "publication had: if it is mistyped, \"tarndbudpub restore --force --url URL\" mends the links."));
	EXPECT_EQ(Newest(), 4);
	warnings_.clear();
	PublishNext();
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(LastPublication, HasLinksThatRestoreMends) {
	options_.url = "http://updates.exmaple/base";
	PublishNext();
	EXPECT_THAT(FullLink(), StartsWith("http://updates.exmaple/base/packages/"));
	publisher::RestoreOptions restore;
	restore.repository = options_.repository;
	restore.keys = {PublicKey()};
	restore.url = "http://updates.example/base";
	restore.force = true;
	publisher::Restore(restore, observer_);
	EXPECT_THAT(FullLink(), StartsWith("http://updates.example/base/packages/"));
	warnings_.clear();
	options_.url = restore.url;
	PublishNext();
	EXPECT_THAT(warnings_, IsEmpty()) << "restore has noted the URL";
	options_.url.clear();
	Withdraw();
	EXPECT_THAT(FullLink(), StartsWith("http://updates.example/base/packages/"));
}

} // namespace

} // namespace tarn::test
