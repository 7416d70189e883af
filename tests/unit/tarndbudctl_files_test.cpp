#include "dataupdate/installation.h"
#include "dataupdate/updater.h"
#include "host/library/file_changes.h"
#include "host/library/inspection.h"
#include "host/library/installed_files.h"
#include "host/library/json_record.h"
#include "host/library/listed_files.h"
#include "private_root.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

namespace fs = std::filesystem;

using dataupdate::DatabaseStatus;
using dataupdate::FileStatus;
using test::ReadFile;
using test::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr int kVersion = 4;

/** An install directory and what is recorded of it. */
class InstalledFilesTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (!IsSkipped()) {
			WriteFile("/var/lib/data_update/geo/version.json", "{}");
		}
	}
	/** The library's record: what a diff package changed, or, by absolute names, a full package. */
	DatabaseStatus Listed(const std::set<std::string>& names) const {
		DatabaseStatus status;
		status.data_version = kVersion;
		status.file_statuses = dataupdate::CalculateStatus(names, root_);
		return status;
	}
	DatabaseStatus ListedWhole(const std::set<std::string>& names) const {
		std::set<std::string> paths;
		for (const std::string& name : names) {
			paths.insert(directory_ / name);
		}
		return Listed(paths);
	}
	InstalledFiles Install(const std::set<std::string>& names) const {
		for (const std::string& name : names) {
			WriteFile(directory_ / name, "content of " + name);
		}
		return WholeRecord(ListedWhole(names), root_, true);
	}
	std::vector<std::string> Bad(const InstalledFiles& record) const {
		std::vector<std::string> names;
		for (const BadFile& file : FindBadFiles(record, {}, root_)) {
			names.push_back(file.name + " " + file.reason);
		}
		return names;
	}
	std::vector<std::string> Unknown(const InstalledFiles& record) const { return FindUnknownFiles(record, root_); }
	static std::vector<std::string> Names(const InstalledFiles& record) {
		std::vector<std::string> names;
		for (std::size_t at = 0; at < record.files.Size(); ++at) {
			names.emplace_back(record.files.Name(at));
		}
		return names;
	}
	/** What an update by diff packages tells: what is listed, and what of the changed names is gone. */
	dataupdate::InstalledRecord Changed(
	    const std::set<std::string>& changed, const std::set<std::string>& listed) const {
		dataupdate::InstalledRecord result = Listed(listed);
		for (const std::string& name : changed) {
			result.files.Add(name);
		}
		result.files.Sort();
		return result;
	}

	test::TemporaryDirectory directory_;
	const std::string root_ = directory_.Path();
};

TEST_F(InstalledFilesTest, ComesBackAsItWasWritten) {
	InstalledFiles record;
	record.data_version = kVersion;
	record.is_from_disk = true;
	record.files.Add("link", {"", std::nullopt, "sub/target"});
	record.files.Add("link to a name in no UTF-8", {"", std::nullopt, "caf\xe9"});
	record.files.Add("of a digest of another length", {"abc", 5, ""});
	record.files.Add("of unknown size", {std::string(96, 'b'), std::nullopt, ""});
	record.files.Add("sub/with \" and \n, \xc3\xa9 and \xff", {std::string(96, 'a'), 5000000000, ""});
	WriteInstalledFiles("geo", record);
	const auto read = ReadInstalledFiles("geo");
	ASSERT_TRUE(read);
	EXPECT_EQ(read->data_version, kVersion);
	EXPECT_TRUE(read->is_from_disk);
	EXPECT_EQ(read->files, record.files);
	EXPECT_EQ(read->files.At(0).link_target, "sub/target");
	EXPECT_EQ(read->files.At(1).link_target, "caf\xe9");
	EXPECT_EQ(read->files.At(2), record.files.At(2));
	EXPECT_EQ(read->files.At(2).size, 5U);
	EXPECT_EQ(read->files.At(3).size, std::nullopt);
	EXPECT_EQ(read->files.At(4).size, 5000000000U);
	EXPECT_EQ(read->files.At(4).sha384_digest, std::string(96, 'a'));
	EXPECT_TRUE(ReadJsonRecord(InstalledFilesPath("geo")).isObject()) << "it is JSON to others as well";
}

TEST_F(InstalledFilesTest, IsNoneWhenItCannotBeUnderstood) {
	EXPECT_FALSE(ReadInstalledFiles("geo"));
	WriteInstalledFiles("geo", Install({"a", "b"}));
	const std::string whole = ReadFile(InstalledFilesPath("geo"));
	for (std::size_t length = 0; length + 2 < whole.size(); ++length) {
		WriteFile(InstalledFilesPath("geo"), whole.substr(0, length));
		EXPECT_FALSE(ReadInstalledFiles("geo")) << length;
	}
	for (const char* content : {"[]", "1", "{}", R"({"data_version":"x","files":{}})", R"({"data_version":"4"})",
	         R"({"data_version":"4","files":[]})", R"({"data_version":"4","files":{"a":1}})",
	         R"({"data_version":"4","files":{"a":{"sha384_digest":"","size":-1}}})"}) {
		WriteFile(InstalledFilesPath("geo"), content);
		EXPECT_FALSE(ReadInstalledFiles("geo")) << content;
	}
	const auto is_read = [](const std::string& files, const std::string& more = "") {
		WriteFile(InstalledFilesPath("geo"),
		    R"({"data_version":"4","rebuilt_from_disk":false,"files":{)" + files + "}" + more + "}");
		return ReadInstalledFiles("geo").has_value();
	};
	EXPECT_TRUE(is_read(R"("a":{"sha384_digest":"1","size":0},"b":{"link_target":"a"},"\u000062ff":{"size":1})"));
	EXPECT_FALSE(is_read("", R"(,"more":1)"));
	for (const char* files : {R"("b":{"size":1},"a":{"size":1})", R"("a":{"size":1},"a":{"size":1})",
	         R"("a":{"more":"x"})", R"("a":{"size":-1})", R"("a":{"size":1.0})", R"("a":{"size":18446744073709551616})",
	         R"("a":{"size":"1"})", R"("a":{"link_target":1})", R"("a\u0000b":{"size":1})", R"("\u00006":{"size":1})",
	         R"("\u0000xy":{"size":1})", R"("\u00006100":{"size":1})", R"("a":{"link_target":"a\u0000"})",
	         "\"\xff\":{\"size\":1}"}) {
		EXPECT_FALSE(is_read(files)) << files;
	}
}

TEST_F(InstalledFilesTest, IsBelievedOnlyBesideTheRecordThatItBelongsTo) {
	WriteInstalledFiles("geo", Install({"a", "b"}));
	EXPECT_TRUE(ReadCredibleFiles("geo", Listed({}), root_));
	EXPECT_TRUE(ReadCredibleFiles("geo", Listed({"a"}), root_));
	EXPECT_TRUE(ReadCredibleFiles("geo", ListedWhole({"a", "b"}), root_));
	EXPECT_FALSE(ReadCredibleFiles("geo", ListedWhole({"a"}), root_)) << "there is one file too many";
	EXPECT_FALSE(ReadCredibleFiles("geo", ListedWhole({"a", "b"}), "/elsewhere"));
	DatabaseStatus other = Listed({});
	other.data_version = kVersion + 1;
	EXPECT_FALSE(ReadCredibleFiles("geo", other, root_));
	other = Listed({"a"});
	other.file_statuses["a"] = FileStatus("another");
	EXPECT_FALSE(ReadCredibleFiles("geo", other, root_));
	other = Listed({});
	other.file_statuses["c"] = FileStatus("of an unknown file");
	EXPECT_FALSE(ReadCredibleFiles("geo", other, root_));
	dataupdate::MarkUnfinished("geo");
	EXPECT_FALSE(ReadCredibleFiles("geo", Listed({}), root_));
}

TEST_F(InstalledFilesTest, FollowsTheFilesToAnotherDirectory) {
	const InstalledFiles record = Install({"a", "sub/b"});
	EXPECT_THAT(Names(record), ElementsAre("a", "sub/b"));
	EXPECT_FALSE(RelativeName(root_, root_));
	EXPECT_FALSE(RelativeName(root_ + "/../other", root_));
	EXPECT_FALSE(RelativeName("../other", root_));
	EXPECT_EQ(RelativeName("./sub//b", root_), "sub/b");
}

TEST_F(InstalledFilesTest, NamesEveryBadFileAndInWhatItIsBad) {
	InstalledFiles record = Install({"changed", "directory", "good", "link", "longer", "missing"});
	fs::create_symlink("good", directory_ / "forced");
	record.files.Add("forced", {"", std::nullopt, "good"});
	record.files.Sort();
	EXPECT_THAT(Bad(record), IsEmpty());
	WriteFile(directory_ / "changed", "CONTENT of changed");
	WriteFile(directory_ / "longer", "content of longer files");
	for (const char* name : {"directory", "link", "missing", "forced"}) {
		fs::remove(directory_ / name);
	}
	fs::create_directory(directory_ / "directory");
	WriteFile(directory_ / "sub/elsewhere", "content of link");
	fs::create_symlink("sub/elsewhere", directory_ / "link"); // It has the content, but not in its place.
	fs::create_symlink("changed", directory_ / "forced");
	EXPECT_THAT(Bad(record),
	    ElementsAre("changed has changed", "directory is no regular file", "forced is not the recorded link",
	        "link is no regular file", "longer has changed", "missing is missing"));
	EXPECT_THAT(Unknown(record), ElementsAre("sub/elsewhere"));
}

TEST_F(InstalledFilesTest, KnowsWhatReadersOfADatabaseHaveBesideIt) {
	const InstalledFiles record = Install({"rows.sqlite"});
	WriteFile(directory_ / "rows.sqlite-shm", "shared memory");
	WriteFile(directory_ / "rows.sqlite-wal", "");
	WriteFile(directory_ / "rows.sqlite-journal", "");
	EXPECT_THAT(Unknown(record), IsEmpty());
	WriteFile(directory_ / "rows.sqlite-wal", "data");
	WriteFile(directory_ / "rows.sqlite-journal", "data");
	WriteFile(directory_ / "other-shm", "of no recorded database");
	EXPECT_THAT(Unknown(record), UnorderedElementsAre("other-shm", "rows.sqlite-journal", "rows.sqlite-wal"));
}

TEST_F(InstalledFilesTest, LeavesWhatTheLibraryListsToTheLibrarysCheck) {
	const InstalledFiles record = Install({"a", "b"});
	const DatabaseStatus listed = ListedWhole({"a"});
	fs::remove(directory_ / "a");
	EXPECT_THAT(FindBadFiles(record, listed, root_), IsEmpty());
}

TEST_F(InstalledFilesTest, IsCarriedThroughADiff) {
	InstalledFiles before = Install({"changed", "deleted", "steady", "sub/steady"});
	WriteFile(directory_ / "changed", "new");
	WriteFile(directory_ / "created", "new");
	fs::remove(directory_ / "deleted");
	const std::set<std::string> changed = {"changed", "created", "deleted", "created and deleted", "sub"};
	const InstalledFiles now = CarryThroughDiff(std::move(before), Changed(changed, {"changed", "created"}), root_);
	EXPECT_THAT(Names(now), ElementsAre("changed", "created", "steady", "sub/steady"));
	EXPECT_EQ(now.data_version, kVersion);
	EXPECT_THAT(Bad(now), IsEmpty());
	EXPECT_THAT(Unknown(now), IsEmpty());
	EXPECT_EQ(now.files.Find("created")->size, 3U);
}

TEST_F(InstalledFilesTest, KnowsADirectoryThatTookAFilesPlace) {
	InstalledFiles record = Install({"a", "b"});
	fs::remove(directory_ / "a");
	WriteFile(directory_ / "a/file", "");
	// The library lists what exists of the changed names, directories as well.
	const DatabaseStatus status = Listed({"a", "a/file"});
	record = CarryThroughDiff(std::move(record), Changed({}, {"a", "a/file"}), root_);
	EXPECT_THAT(Names(record), ElementsAre("a/file", "b"));
	EXPECT_TRUE(Agree(record, status, root_));
	EXPECT_THAT(Bad(record), IsEmpty());
	EXPECT_THAT(Unknown(record), IsEmpty());
}

TEST_F(InstalledFilesTest, DoesNotForgetWhatTheDiffDidNotDelete) {
	InstalledFiles before = Install({"changed", "damaged", "vanished"});
	fs::remove(directory_ / "vanished");
	WriteFile(directory_ / "damaged", "CONTENT of damaged");
	const InstalledFiles now = CarryThroughDiff(std::move(before), Changed({}, {"changed"}), root_);
	EXPECT_THAT(Bad(now), ElementsAre("damaged has changed", "vanished is missing"));
}

TEST_F(InstalledFilesTest, IsCarriedThroughAForcedVersion) {
	InstalledFiles before = Install({"damaged", "became directory", "overwritten", "steady", "vanished"});
	WriteFile(directory_ / "damaged", "CONTENT of damaged");
	WriteFile(directory_ / "unknown", "");
	fs::remove(directory_ / "vanished");
	auto identities = IdentitiesBelow(root_);
	// As the package does it: what exists is removed first.
	for (const char* name : {"became directory", "overwritten"}) {
		fs::remove(directory_ / name);
	}
	WriteFile(directory_ / "became directory/file", "forced");
	WriteFile(directory_ / "overwritten", "content of OVERWRITTEN");
	fs::create_symlink("steady", directory_ / "link");
	const InstalledFiles now = CarryThroughForced(std::move(before), std::move(identities), kVersion + 3, root_);
	EXPECT_EQ(now.data_version, kVersion + 3);
	EXPECT_THAT(
	    Names(now), ElementsAre("became directory/file", "damaged", "link", "overwritten", "steady", "vanished"));
	EXPECT_THAT(Bad(now), ElementsAre("damaged has changed", "vanished is missing"));
	EXPECT_THAT(Unknown(now), ElementsAre("unknown"));
}

TEST_F(InstalledFilesTest, IsMadeAgainFromTheFullPackagesRecord) {
	Install({"a", "b"});
	const DatabaseStatus status = ListedWhole({"a", "b"});
	WriteFile(directory_ / "a", "damaged before");
	WriteFile(directory_ / "unknown", "");
	const InstalledFiles record = RebuiltRecord(status, root_);
	EXPECT_FALSE(record.is_from_disk);
	EXPECT_THAT(Bad(record), ElementsAre("a has changed"));
	EXPECT_THAT(Unknown(record), ElementsAre("unknown"));
}

TEST_F(InstalledFilesTest, IsMadeAgainFromTheDiskButForWhatTheLibraryLists) {
	Install({"a", "b", "c", "sub/d"});
	const DatabaseStatus status = Listed({"a", "c"});
	WriteFile(directory_ / "a", "damaged before");
	WriteFile(directory_ / "b", "damaged before, which cannot be known");
	fs::remove(directory_ / "c");
	InstalledFiles record = RebuiltRecord(status, root_);
	EXPECT_TRUE(record.is_from_disk);
	EXPECT_THAT(Bad(record), ElementsAre("a has changed", "c is missing"));
	EXPECT_TRUE(Agree(record, status, root_));
	EXPECT_THAT(Unknown(record), IsEmpty());
	const InstalledFiles carried = CarryThroughDiff(std::move(record), Changed({}, {"b"}), root_);
	EXPECT_TRUE(carried.is_from_disk) << "the other files are still as they were found";
}

} // namespace
} // namespace tarn::ctl
