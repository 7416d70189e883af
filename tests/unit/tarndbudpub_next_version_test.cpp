// Repositories that have lost something: what a publisher refuses there, and how it goes on after a killed one.
#include "diff_fixture.h"

#include <cstdlib>

namespace tarn::test {

namespace {

class NextVersion : public DiffPublisherTest {
protected:
	std::string DocumentPath() const { return options_.repository + "/database_info/1"; }
	/** Publishes versions up to one, each another tree. */
	void PublishUpTo(int version) {
		for (int at = 1; at <= version; ++at) {
			Put("text", std::to_string(at));
			Publish();
		}
	}
	void ExpectRefused(const std::string& sentence) {
		const auto before = FilesBelow(options_.repository);
		EXPECT_THAT(PublishError(), HasSubstr(sentence));
		EXPECT_EQ(FilesBelow(options_.repository), before);
	}
};

TEST_F(NextVersion, IsAFirstPublicationWhereThereIsNothing) {
	EXPECT_TRUE(Publish().is_first);
	EXPECT_FALSE(Publish().is_first);
	options_.id = "other";
	EXPECT_TRUE(Publish().is_first);
	options_.id = "db";
	options_.db_version = "2";
	EXPECT_FALSE(Publish().is_first);
}

TEST_F(NextVersion, IsNoFirstOneWhenAskedToContinue) {
	options_.must_continue = true;
	EXPECT_THAT(PublishError(), HasSubstr("/repo is no directory that can be read"));
	EXPECT_FALSE(fs::exists(options_.repository));
	fs::create_directory(options_.repository);
	EXPECT_THAT(PublishError(), HasSubstr("Nothing of db was ever published in "));
	EXPECT_FALSE(fs::exists(Package(1)));
	options_.must_continue = false;
	Publish();
	options_.must_continue = true;
	EXPECT_EQ(Publish().data_version, 2);
}

TEST_F(NextVersion, IsRefusedWithoutTheDocumentThatNamedThePackages) {
	PublishUpTo(3);
	fs::remove(DocumentPath());
	ExpectRefused(
	    "No document names db, though packages of it lie in " + options_.repository +
	    "/packages/db, up to version 3, which devices may have. Rebuild the document by \"tarndbudpub restore --repo " +
	    options_.repository + " --db-version 1 --key FILE\"");
	options_.data_version = 1000;
	ExpectRefused("No document names db");
	options_.data_version.reset();
	fs::remove_all(options_.repository + "/database_info");
	ExpectRefused("No document names db");
	options_.id = "other";
	EXPECT_EQ(Publish().data_version, 1) << "another database has lost nothing";
	options_.id = "db";
	ExpectRefused("No document names db");
	WriteFile(DocumentPath(), "half a docu");
	ExpectRefused("tarndbudpub restore");
}

TEST_F(NextVersion, IsRefusedWhenOnlyDiffPackagesAreLeft) {
	PublishUpTo(2);
	fs::remove(DocumentPath());
	fs::remove(Package(1));
	fs::remove(Package(2));
	ExpectRefused("No document names db");
}

TEST_F(NextVersion, IsAboveEveryPackageOfAnOlderCopyOfTheDocument) {
	PublishUpTo(2);
	const std::string old = ReadFile(DocumentPath());
	Put("text", "three");
	Publish();
	Put("text", "four");
	Publish();
	WriteFile(DocumentPath(), old);
	Put("text", "another four");
	ExpectRefused("Version 3 of db cannot be published: " + Diff(4) +
	              " is there, no document names it, and devices may have it.");
	fs::remove(Diff(4));
	ExpectRefused("--data-version 5");
	options_.data_version = 5;
	EXPECT_EQ(Publish().data_version, 5);
}

TEST_F(NextVersion, IsAboveAVersionOfWhichOnlyTheDiffIsLeft) {
	PublishUpTo(2);
	const std::string old = ReadFile(DocumentPath());
	Put("text", "three");
	Publish();
	WriteFile(DocumentPath(), old);
	fs::remove(Package(3));
	ExpectRefused("Version 3 of db cannot be published: " + Diff(3));
}

/** A publisher that was killed between its packages and its document, by taking the document back. */
class KilledBeforeItsDocument : public NextVersion {
protected:
	KilledBeforeItsDocument() {
		const FixedTime time("1700000000");
		PublishUpTo(2);
		document_ = ReadFile(DocumentPath());
		Put("text", "three");
		Publish();
		package_ = ReadFile(Package(3));
		diff_ = ReadFile(Diff(3));
		WriteFile(DocumentPath(), document_);
	}

	std::string document_;
	std::string package_;
	std::string diff_;
};

TEST_F(KilledBeforeItsDocument, IsFollowedByOneThatMakesTheSamePackage) {
	const publisher::PublishResult result = Publish();
	EXPECT_EQ(result.data_version, 3);
	EXPECT_TRUE(result.diff);
	EXPECT_THAT(warnings_, IsEmpty());
	EXPECT_EQ(ReadFile(Package(3)), package_);
	EXPECT_EQ(ReadFile(Diff(3)), diff_);
	EXPECT_EQ(Document()["db_list"]["db"]["data_version"].asString(), "3");
	EXPECT_EQ(Followed(1, 3), PublishedTree());
}

TEST_F(KilledBeforeItsDocument, LeavesAPackageThatNoOtherTreeReplaces) {
	Put("text", "another three");
	ExpectRefused("The package " + Package(3) + " is there already, with another content than this tree makes");
	EXPECT_THAT(PublishError(), HasSubstr("Go past it by --data-version 4, or remove it when it was never served."));
	EXPECT_EQ(ReadFile(Package(3)), package_);
	options_.data_version = 4;
	EXPECT_EQ(Publish().data_version, 4);
	EXPECT_EQ(ReadFile(Package(3)), package_);
}

TEST_F(KilledBeforeItsDocument, LeavesAPackageThatIsNotReplacedWhoeverMadeIt) {
	WriteFile(Package(3), "left behind");
	ExpectRefused("The package " + Package(3) + " is there already");
	fs::remove(Package(3));
	fs::remove(Diff(3));
	EXPECT_EQ(Publish().data_version, 3);
}

TEST_F(KilledBeforeItsDocument, LeavesADiffThatIsNotReplacedByAnother) {
	WriteFile(Diff(3), "another diff");
	Publish();
	EXPECT_THAT(warnings_, ElementsAre(AllOf(HasSubstr("Version 3 has no diff package: "),
	                           HasSubstr("is there already, with another content, and caches may have it"))));
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	EXPECT_EQ(ReadFile(Package(3)), package_);
}

} // namespace

} // namespace tarn::test
