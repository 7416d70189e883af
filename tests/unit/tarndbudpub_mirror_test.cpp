#include "publisher/commands/command_line.h"
#include "publisher/common/files.h"
#include "publisher/mirror/mirror_snapshot.h"
#include "publisher/mirror/store.h"
#include "publisher_fixture.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

namespace tarn::test {
namespace {

using publisher::IsCurrent;
using publisher::IsPackageName;
using publisher::MissingPackage;
using publisher::ParseTime;
using publisher::Snapshot;
using publisher::TakeSnapshot;
using testing::HasSubstr;

class Mirroring : public PublisherTest {
protected:
	Snapshot Take() const { return TakeSnapshot(options_.repository); }
	int Run(const std::vector<std::string>& arguments) {
		out_.str("");
		err_.str("");
		return publisher::RunMirrorCommand(arguments, out_, err_, false);
	}

	std::ostringstream out_;
	std::ostringstream err_;
};

TEST_F(Mirroring, TakesWhatDocumentsNameAndWhatLiesThere) {
	Put("file");
	Publish();
	Put("file", "other");
	Publish();
	WriteFile(options_.repository + "/packages/db/.db_v9.tarn", "half");
	WriteFile(options_.repository + "/packages/db/notes", "notes");
	WriteFile(options_.repository + "/database_info/.1", "half");
	const Snapshot snapshot = Take();
	EXPECT_EQ(snapshot.documents.size(), 1U);
	EXPECT_EQ(snapshot.newest.at("db"), 2);
	EXPECT_EQ(snapshot.named.find("packages/db/db_v2.tarn")->second.document, "database_info/1");
	EXPECT_EQ(snapshot.packages.count("packages/db/db_v1.tarn"), 1U);
	EXPECT_EQ(snapshot.packages.count("packages/db/.db_v9.tarn") + snapshot.packages.count("packages/db/notes"), 0U);
	EXPECT_EQ(MissingPackage(snapshot, snapshot.packages), "");
	EXPECT_EQ(MissingPackage(snapshot, {}), "packages/db/db_v2.tarn, which database_info/1 names");
}

TEST_F(Mirroring, KnowsWhatAWebServerLeaves) {
	EXPECT_TRUE(publisher::IsServersDraft("database_info/1.0000000012"));
	EXPECT_TRUE(publisher::IsServersDraft("packages/db/db_v1.tarn.0000000012"));
	for (const char* name :
	    {"database_info/1", "database_info/1.000000012", "database_info/1.00000000x2", "packages/db/notes.0000000012",
	        "packages/db/db_v1.tarn", "packages/db/db_v1.tarn00000000012", ".0000000012", "site/1.0000000012"}) {
		EXPECT_FALSE(publisher::IsServersDraft(name)) << name;
	}
}

TEST_F(Mirroring, KnowsWhetherTheDocumentsAreStillTheSame) {
	Put("file");
	Publish();
	const Snapshot snapshot = Take();
	EXPECT_TRUE(IsCurrent(snapshot, options_.repository));
	Put("file", "other");
	Publish();
	EXPECT_FALSE(IsCurrent(snapshot, options_.repository));
}

TEST_F(Mirroring, RefusesARepositoryThatDevicesCouldNotUse) {
	EXPECT_THROW(static_cast<void>(Take()), publisher::BrokenRepository);
	Put("file");
	Publish();
	WriteFile(options_.repository + "/database_info/2", "{");
	EXPECT_THROW(static_cast<void>(Take()), publisher::BrokenRepository);
}

TEST_F(Mirroring, RefusesWrongUsageWithoutCallingRclone) {
	EXPECT_EQ(Run({"--repo", "/nonexistent", "bucket"}), 2);
	EXPECT_THAT(err_.str(), HasSubstr("no remote of rclone"));
	EXPECT_EQ(Run({"store:"}), 2);
	EXPECT_EQ(Run({"--repo", "/nonexistent", "store:"}), 1);
	EXPECT_THAT(err_.str(), HasSubstr("/nonexistent"));
	EXPECT_EQ(Run({"--help"}), 0);
	EXPECT_THAT(out_.str(), HasSubstr("--no-delete"));
}

TEST_F(Mirroring, OnlyPackagesInTheirPlaceAreDeleted) {
	EXPECT_TRUE(IsPackageName("packages/db/db_v1.tarn"));
	EXPECT_TRUE(IsPackageName("packages/db/db_d2w3.tarn"));
	for (const char* name : {"packages/db/other_v1.tarn", "packages/db/db_v1.tarn.bak", "packages/db/deep/db_v1.tarn",
	         "packages/db_v1.tarn", "other/db/db_v1.tarn", "database_info/1", "packages/.db/.db_v1.tarn", ""}) {
		EXPECT_FALSE(IsPackageName(name)) << name;
	}
}

TEST_F(Mirroring, UnderstandsTimesOfEveryZone) {
	constexpr std::int64_t kTime = 1795342854; // 2026-11-22T10:20:54Z
	EXPECT_EQ(ParseTime("2026-11-22T10:20:54Z"), kTime);
	EXPECT_EQ(ParseTime("2026-11-22T10:20:54.055495423Z"), kTime);
	EXPECT_EQ(ParseTime("2026-11-22T12:20:54.5+02:00"), kTime);
	EXPECT_EQ(ParseTime("2026-11-22T08:50:54-01:30"), kTime);
	for (const char* text : {"", "yesterday", "2026-11-22", "2026-11-22T10:20:54", "2026-11-22T10:20:54+2"}) {
		EXPECT_EQ(ParseTime(text), std::nullopt) << text;
	}
}

} // namespace
} // namespace tarn::test
