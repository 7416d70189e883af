// What the host knows of the packages that it installs.
#include "host/library/failure.h"
#include "host/library/installed_package.h"
#include "host/library/operation.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <tarncodesign/tarncodesign.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using testing::HasSubstr;
using testing::Throw;

constexpr char kFull[] = R"({"data_version":3,"format_version":"1","id":"geo","kind":"full","published":1700000003})";
constexpr char kDiff[] = R"({"base_version":3,"data_version":4,"id":"geo","kind":"diff","published":1700000004})";
constexpr char kSilent[] = R"({"data_version":4,"id":"geo","kind":"full"})";

TEST(OpenedPackagesTest, KeepTheLastPackageOfEachDatabase) {
	OpenedPackages packages;
	EXPECT_FALSE(packages.Last("geo"));
	EXPECT_EQ(packages.Hear(kFull), nullptr);
	EXPECT_EQ(packages.Hear(kDiff), nullptr);
	ASSERT_TRUE(packages.Last("geo"));
	EXPECT_EQ(packages.Last("geo")->data_version, 4);
	EXPECT_EQ(packages.Last("geo")->published, 1700000004);
	EXPECT_FALSE(packages.Last("zip"));
	EXPECT_EQ(packages.Hear(kSilent), nullptr);
	EXPECT_FALSE(packages.Last("geo")->published);
}

TEST(OpenedPackagesTest, LetInOnlyTheVersionThatIsExpected) {
	OpenedPackages packages(4);
	EXPECT_STREQ(packages.Hear(kFull), "version 4 of geo is asked for, and this is version 3");
	EXPECT_FALSE(packages.Last("geo"));
	EXPECT_EQ(packages.Hear(kSilent), nullptr);
}

TEST(OpenedPackagesTest, RefuseWhatCannotBeRead) {
	OpenedPackages packages;
	for (const char* metadata :
	    {"", "[]", "7", R"({"id":[],"data_version":1})", R"({"id":"geo","data_version":"1"})"}) {
		EXPECT_NE(packages.Hear(metadata), nullptr) << metadata;
	}
	EXPECT_FALSE(packages.Last("geo"));
}

class InstalledPackageTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (!IsSkipped()) {
			std::filesystem::create_directories("/var/lib/data_update/geo");
		}
	}
	/** Records a version as the library does at the end of an operation that opened these packages. */
	void Record(int version, const std::vector<const char*>& opened = {}) {
		Operation operation(doubles_.services, "geo", Change::kFix, [] {});
		for (const char* metadata : opened) {
			EXPECT_EQ(operation.Packages().Hear(metadata), nullptr);
		}
		dataupdate::DatabaseStatus status;
		status.data_version = version;
		operation.Info()->SetDatabaseStatus("geo", status);
	}

	test::Doubles doubles_;
};

TEST_F(InstalledPackageTest, IsRecordedWithTheVersionThatItBrought) {
	EXPECT_FALSE(PublicationTime("geo", 4));
	Record(4, {kFull, kDiff});
	EXPECT_EQ(PublicationTime("geo", 4), 1700000004);
	EXPECT_FALSE(PublicationTime("geo", 5)) << "version 5 came from another program, without a record";
}

TEST_F(InstalledPackageTest, IsForgottenWhenNothingIsKnownOfTheNextOne) {
	Record(3, {kFull});
	EXPECT_EQ(PublicationTime("geo", 3), 1700000003);
	Record(4, {kSilent});
	EXPECT_FALSE(std::filesystem::exists(InstalledPackagePath("geo")));
	Record(3, {kDiff});
	EXPECT_FALSE(PublicationTime("geo", 3)) << "the last package that was opened is one of version 4";
}

TEST_F(InstalledPackageTest, IsForgottenBeforeTheLibrarysRecordChanges) {
	Record(3, {kFull});
	ON_CALL(*doubles_.info, SetDatabaseStatus).WillByDefault(Throw(dataupdate::UpdateError("Fail to write: x")));
	EXPECT_THROW(Record(3), dataupdate::UpdateError);
	EXPECT_FALSE(std::filesystem::exists(InstalledPackagePath("geo")));
}

TEST_F(InstalledPackageTest, IsUnknownWhereTheRecordCannotBeBelieved) {
	for (const char* record : {"", "{", "[]", "7", R"({"data_version":"4","published":1})", R"({"data_version":4})",
	         R"({"data_version":4,"published":"1"})"}) {
		test::WriteFile(InstalledPackagePath("geo"), record);
		EXPECT_FALSE(PublicationTime("geo", 4)) << record;
	}
	test::WriteFile(InstalledPackagePath("geo"), std::string(5000, '['));
	EXPECT_FALSE(PublicationTime("geo", 4));
}

TEST_F(InstalledPackageTest, NamesARecordThatCannotBeRemoved) {
	std::filesystem::create_directories(InstalledPackagePath("geo") + "/directory");
	try {
		Record(3);
		FAIL() << "nothing was thrown";
	} catch (const CommandError& error) {
		EXPECT_THAT(error.what(), HasSubstr(InstalledPackagePath("geo") + " cannot be removed ("));
	}
}

TEST(PackageRefusalTest, IsWhatThePlatformSaysOfTheLastPackage) {
	tarnarchive* context = tarnarchive_init("/");
	ASSERT_NE(context, nullptr);
	EXPECT_FALSE(LastPackageRefusal());
	EXPECT_FALSE(tarnarchive_open_with_keytype(context, "/missing/geo_v3", TARNARCHIVE_KEYTYPE_DATA_UPDATE));
	tarnarchive_free(context);
	ASSERT_TRUE(LastPackageRefusal());
	EXPECT_FALSE(LastPackageRefusal()->not_asked_for);
	const Failure failure = ExplainMessage("tarnarchive_open /missing/geo_v3 failed, ret: 0", 0);
	EXPECT_THAT(failure.sentence, HasSubstr("ret: 0; it is missing; the package is damaged"));
	tarnarchive_free(tarnarchive_init("/"));
	EXPECT_FALSE(LastPackageRefusal()) << "the last call succeeded";
}

} // namespace
} // namespace tarn::ctl
