// Trees that are published only when they differ from the newest version, and what is said about a version.
#include "diff_fixture.h"
#include "publisher/commands/command_line.h"

#include <sstream>

namespace tarn::test {

namespace {

class IfChanged : public DiffPublisherTest {
protected:
	IfChanged() {
		Put("a/b", "content");
		Publish();
		options_.if_changed = true;
		before_ = RepositoryFiles();
	}

	void ExpectNothingPublished() {
		const publisher::PublishResult result = Publish();
		EXPECT_TRUE(result.is_unchanged);
		EXPECT_EQ(result.data_version, 1);
		EXPECT_EQ(result.files, 2U);
		EXPECT_EQ(RepositoryFiles(), before_);
		EXPECT_THAT(warnings_, IsEmpty());
	}
	void ExpectPublished() {
		const publisher::PublishResult result = Publish();
		EXPECT_FALSE(result.is_unchanged);
		EXPECT_EQ(result.data_version, 2);
		EXPECT_TRUE(fs::exists(Package(2)));
	}

	std::vector<std::string> before_;
};

TEST_F(IfChanged, PublishesNothingForTheSameTree) {
	ExpectNothingPublished();
	fs::last_write_time(TreePath("a/b"), fs::file_time_type::clock::now()); // which devices do not get
	ExpectNothingPublished();
}

TEST_F(IfChanged, PublishesOtherBytesOfTheSameSize) {
	Put("a/b", "cantent");
	ExpectPublished();
}

TEST_F(IfChanged, PublishesAnotherLastByteOfALargeFile) {
	std::string bytes = ReadFile(TreePath("bulk"));
	bytes.back() = static_cast<char>(bytes.back() + 1);
	Put("bulk", bytes);
	ExpectPublished();
}

TEST_F(IfChanged, PublishesAnotherName) {
	fs::rename(TreePath("a/b"), TreePath("a/c"));
	ExpectPublished();
}

TEST_F(IfChanged, PublishesAnotherExecutePermission) {
	fs::permissions(TreePath("a/b"), fs::perms::owner_exec, fs::perm_options::add);
	ExpectPublished();
}

TEST_F(IfChanged, PublishesAnotherFormat) {
	options_.format_version = "2";
	ExpectPublished();
}

TEST_F(IfChanged, ComparesWithTheNewestVersionAlone) {
	Put("a/b", "cantent");
	Publish();
	Put("a/b", "content");
	EXPECT_EQ(Publish().data_version, 3);
	EXPECT_TRUE(Publish().is_unchanged);
}

TEST_F(IfChanged, PublishesTheFirstVersionOfADatabase) {
	options_.id = "other";
	EXPECT_FALSE(Publish().is_unchanged);
	EXPECT_TRUE(fs::exists(Package(1, "other")));
}

TEST_F(IfChanged, PublishesWithAWarningWhatCannotBeCompared) {
	fs::remove(Package(1));
	ExpectPublished();
	EXPECT_THAT(warnings_, Contains(AllOf(HasSubstr("without a comparison with version 1"), HasSubstr("db_v1.tarn"))));
}

class Notes : public DiffPublisherTest {
protected:
	std::string Inspected(const std::string& package) {
		std::ostringstream out;
		std::ostringstream err;
		EXPECT_EQ(publisher::RunCommandLine({"inspect", package}, out, err, false), publisher::kDone) << err.str();
		return out.str();
	}
};

TEST_F(Notes, AreSignedInBothPackagesAndShown) {
	Publish();
	EXPECT_THAT(Inspected(Package(1)), Not(HasSubstr("notes")));
	Put("more");
	options_.notes = "Winter time; caf\xc3\xa9s";
	Publish();
	for (const std::string& package : {Package(2), Diff(2)}) {
		EXPECT_THAT(Inspected(package), HasSubstr("notes          Winter time; caf\xc3\xa9s\n"));
		UnpackPackage(package, PublicKey(), directory_ / "repo"); // the signature covers them
	}
}

TEST_F(Notes, AreOneLineOfLimitedLength) {
	options_.notes = std::string(1000, 'x');
	EXPECT_EQ(PublishError(), "");
	for (const std::string& bad : {std::string(1001, 'x'), std::string("a\nb"), std::string("a\tb"),
	         std::string("\x1b[31m"), std::string("a\x7f"), std::string("\xc2\x9b"), std::string("\xe2\x80\xae"),
	         std::string("\xff"), std::string("a\0b", 3)}) {
		options_.notes = bad;
		EXPECT_THAT(PublishError(), HasSubstr("--notes")) << bad;
	}
	EXPECT_FALSE(fs::exists(Package(2)));
}

} // namespace

} // namespace tarn::test
