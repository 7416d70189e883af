// Diff packages: what they hold, when there is one, and what the document says about them.
#include "archive/signing_key.h"
#include "diff_fixture.h"

#include <cstdlib>

namespace tarn::test {

namespace {

class DiffPublishing : public DiffPublisherTest {
protected:
	DiffPublishing() {
		Put("text", "one\n" + Noise(3000, 2));
		Put("d/same", "same");
	}

	/** Publishes a small change, which makes a diff package whenever there can be one. */
	void PublishChange() {
		Put("text", std::to_string(++changes_) + "\n" + Noise(3000, 2));
		Publish();
	}
	void PutProgram(const std::string& name, const std::string& script) const {
		const std::string path = directory_ / ("bin/" + name);
		WriteFile(path, "#!/bin/sh\n" + script);
		fs::permissions(path, fs::perms::owner_all);
	}
	void ExpectRefusal(const std::string& reason) {
		EXPECT_THAT(warnings_, ElementsAre(HasSubstr(reason)));
		EXPECT_THAT(OfferedDiffs(), IsEmpty());
		EXPECT_FALSE(fs::exists(Diff(2)));
		EXPECT_EQ(Document()["db_list"]["db"]["data_version"].asString(), "2");
		warnings_.clear();
	}

	int changes_ = 0;
};

TEST_F(DiffPublishing, LeadsDevicesToTheNewTree) {
	Put("gone", "gone");
	Put("tool", "#!/bin/sh\n");
	Publish();
	Put("text", "two\n" + Noise(3000, 2));
	Put("new/empty", "");
	Put("new/file", "new");
	fs::permissions(TreePath("tool"), fs::perms::owner_all);
	fs::remove(TreePath("gone"));
	const publisher::PublishResult result = Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"gone", "none"}, {"new/empty", "whole"}, {"new/file", "whole"}, {"text", "vcdiff"},
	                          {"tool", "whole"}}));
	ASSERT_TRUE(result.diff);
	EXPECT_EQ(result.diff->created, 2U);
	EXPECT_EQ(result.diff->replaced, 1U);
	EXPECT_EQ(result.diff->patched, 1U);
	EXPECT_EQ(result.diff->scripted, 0U);
	EXPECT_EQ(result.diff->deleted, 1U);
	EXPECT_EQ(Followed(1, 2), PublishedTree());
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(DiffPublishing, StandsInTheDocumentWithLinkAndSize) {
	PublishChange();
	PublishChange();
	const Json::Value files = Document()["db_list"]["db"]["diff_files"];
	EXPECT_EQ(files.getMemberNames(), (std::vector<std::string>{"2"}));
	EXPECT_EQ(files["2"]["download_link"].asString(), "http://updates.example/base/packages/db/db_d2.tarn");
	EXPECT_EQ(files["2"]["file_size"].asUInt64(), fs::file_size(Diff(2)));
	EXPECT_EQ(files["2"].size(), 2U);
}

TEST_F(DiffPublishing, CarriesNothingThatIsUnchanged) {
	Publish();
	Publish();
	EXPECT_EQ(KindsIn(2), Kinds());
	EXPECT_EQ(Followed(1, 2), PublishedTree());
}

TEST_F(DiffPublishing, CarriesWholeWhatNoPatchMakesSmaller) {
	Put("other", Noise(2000, 3));
	Publish();
	Put("other", Noise(2000, 4));
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"other", "whole"}}));
}

TEST_F(DiffPublishing, LeadsAcrossManyVersionsAtOnce) {
	for (int version = 1; version <= 5; ++version) {
		Put("v" + std::to_string(version), Noise(100, 7));
		fs::remove(TreePath("v" + std::to_string(version - 2)));
		PublishChange();
	}
	for (int from = 1; from <= 5; ++from) {
		EXPECT_EQ(Followed(from, 5), PublishedTree()) << from;
	}
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2, 3, 4, 5));
}

TEST_F(DiffPublishing, KeepsAsManyAsItIsTold) {
	options_.keep_diffs = 2;
	for (int version = 1; version <= 4; ++version) {
		PublishChange();
	}
	EXPECT_THAT(OfferedDiffs(), ElementsAre(3, 4));
	EXPECT_FALSE(fs::exists(Diff(2)));
	EXPECT_TRUE(fs::exists(Diff(3)));
	options_.keep_diffs = 0;
	PublishChange();
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	EXPECT_THAT(RepositoryFiles(), Not(Contains(HasSubstr("_d"))));
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(DiffPublishing, KeepsByItselfWhatIsNoDearerThanTheFullPackage) {
	options_.keep_diffs.reset();
	for (unsigned version = 1; version <= 8; ++version) {
		Put("new", Noise(6'000, version + 1));
		PublishChange();
	}
	std::uintmax_t chain = 0;
	for (const int version : OfferedDiffs()) {
		chain += fs::file_size(Diff(version));
	}
	EXPECT_LE(chain, fs::file_size(Package(8)));
	EXPECT_GT(chain + fs::file_size(Diff(8)), fs::file_size(Package(8))); // one more would have been dearer
	EXPECT_EQ(OfferedDiffs().back(), 8);
}

TEST_F(DiffPublishing, KeepsByItselfNoMoreThanDevicesShouldGoThrough) {
	std::map<int, publisher::DiffFile> files;
	for (int version = 1; version <= 150; ++version) {
		files[version] = {"", 1};
	}
	publisher::KeepNewest(files, std::nullopt, 1'000'000);
	EXPECT_EQ(files.size(), 100U);
	EXPECT_EQ(files.begin()->first, 51);
}

TEST_F(DiffPublishing, IsLeftOutAfterAGapAndLeavesNoDiffBelow) {
	PublishChange();
	PublishChange();
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2));
	options_.data_version = 5;
	PublishChange();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("Version 5 has no diff package: devices have version 2")));
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	EXPECT_FALSE(fs::exists(Diff(2)));
	options_.data_version.reset();
	PublishChange();
	EXPECT_THAT(OfferedDiffs(), ElementsAre(6));
}

TEST_F(DiffPublishing, IsOfOneFormatAlone) {
	PublishChange();
	PublishChange();
	options_.format_version = "2";
	options_.db_version = "2";
	PublishChange();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("The document 2 is new")));
	EXPECT_EQ(Document("2")["db_list"]["db"]["diff_files"].size(), 0U);
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2));
	EXPECT_TRUE(fs::exists(Diff(2)));
	PublishChange();
	EXPECT_EQ(Document("2")["db_list"]["db"]["diff_files"].getMemberNames(), (std::vector<std::string>{"4"}));
	EXPECT_TRUE(fs::exists(Diff(2)));
}

TEST_F(DiffPublishing, IsLeftOutWithoutThePackageBefore) {
	PublishChange();
	fs::remove(Package(1));
	PublishChange();
	ExpectRefusal("db_v1.tarn is missing");
}

TEST_F(DiffPublishing, TrustsNoPackageThatAnotherKeySigned) {
	PublishChange();
	archive::GenerateKeyFiles(directory_ / "second");
	options_.key_file = directory_ / "second.key";
	EXPECT_THAT(PublishError(), HasSubstr("the package " + Package(1) + " has no signature by --key or an --old-key"));
	options_.keep_diffs = 0;
	PublishChange();
	options_.keep_diffs.reset();
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
	archive::GenerateKeyFiles(directory_ / "third");
	options_.key_file = directory_ / "third.key";
	options_.old_keys = {PublicKey(), directory_ / "second.pub"};
	PublishChange();
	EXPECT_THAT(warnings_, IsEmpty());
	EXPECT_THAT(OfferedDiffs(), ElementsAre(3));
	options_.old_keys = {options_.key_file};
	EXPECT_THAT(PublishError(), HasSubstr("third.key: this is a private key"));
}

TEST_F(DiffPublishing, TrustsNoPackageInAnotherOnesPlace) {
	PublishChange();
	options_.data_version = 1;
	options_.id = "other";
	Publish();
	fs::copy_file(Package(1, "other"), Package(1), fs::copy_options::overwrite_existing);
	options_.id = "db";
	options_.data_version.reset();
	PublishChange();
	ExpectRefusal("is not the full package of version 1 of db");
}

TEST_F(DiffPublishing, IsLeftOutWhenTheChainBelowCannotBeRead) {
	PublishChange();
	PublishChange();
	WriteFile(Diff(2), "damaged");
	PublishChange();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("db_d2.tarn is too short for a signed archive")));
	EXPECT_THAT(OfferedDiffs(), IsEmpty());
}

TEST_F(DiffPublishing, EndsTheChainAboveAPackageThatCannotBeRead) {
	for (int version = 1; version <= 3; ++version) {
		PublishChange();
	}
	WriteFile(Diff(2), "damaged");
	PublishChange();
	EXPECT_THAT(warnings_, IsEmpty());
	EXPECT_THAT(OfferedDiffs(), ElementsAre(3, 4));
}

TEST_F(DiffPublishing, IsLeftOutWhenItIsNoSmallerThanTheFullPackage) {
	Publish();
	fs::remove_all(options_.tree);
	Put("text", "all new");
	Publish();
	ExpectRefusal("no smaller than the full package");
}

TEST_F(DiffPublishing, IsLeftOutWhereDevicesCouldNotApplyIt) {
	Put("a/b", "one");
	Put("a.b", "one");
	Publish();
	Put("a/b", "two");
	Put("a.b", "two");
	Publish();
	ExpectRefusal("\"a.b\" and \"a/b\"");
	Publish();
	fs::remove_all(TreePath("a"));
	Put("a", "a file");
	Publish();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("\"a\" is a file now and was a directory")));
}

TEST_F(DiffPublishing, NamesUnchangedJournalsBesideWhatItReplaces) {
	for (const char* name : {"d/stock", "d/stock-wal", "d/stock-wal-journal", "text-journal", "text-shm", "text-x-wal",
	         "same-journal", "gone", "gone-journal"}) {
		Put(name, "a list");
	}
	Put("text-wal", "");
	Publish();
	Put("text", "two\n" + Noise(3000, 2));
	Put("d/stock", "another list");
	fs::remove(TreePath("gone"));
	Publish();
	std::vector<std::string> names;
	for (const auto& [name, kind] : KindsIn(2)) {
		names.push_back(name);
	}
	EXPECT_THAT(names, ElementsAre("d/stock", "d/stock-wal", "d/stock-wal-journal", "gone", "text", "text-journal"));
	EXPECT_EQ(Followed(1, 2), PublishedTree());
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(DiffPublishing, PatchesUnchangedJournalsAndDatabasesWithSuchNames) {
	Put("text-wal", Noise(3000, 3));
	Sql("list-journal", "CREATE TABLE t(a); INSERT INTO t VALUES(1)");
	Put("list", "one");
	Publish();
	Put("text", "two\n" + Noise(3000, 2));
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"text", "vcdiff"}, {"text-wal", "vcdiff"}}));
	Sql("list-journal", "INSERT INTO t VALUES(2)");
	Publish();
	EXPECT_EQ(KindsIn(3), (Kinds{{"list-journal", "sql"}}));
	Put("list", "two");
	Publish();
	EXPECT_THAT(KindsIn(4), Contains(::testing::Key("list-journal")));
	DeviceTree device(PublicKey());
	device.Install(Package(1));
	EXPECT_NO_THROW(device.Update(Diffs(1, 4)));
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(DiffPublishing, IsLeftOutWhereDevicesWouldRefuseIt) {
	Publish();
	observer_.step = [this](const std::string& what, std::uint64_t /*done*/, std::uint64_t /*count*/) {
		for (const fs::directory_entry& entry : fs::directory_iterator(options_.repository)) {
			if (const fs::path old = entry.path() / "old"; what == "verifying" && fs::exists(old)) {
				WriteFile((old / "text-journal").string(), "of another program");
			}
		}
	};
	PublishChange();
	ExpectRefusal("devices could not apply it: In the way of text: ");
}

TEST_F(DiffPublishing, TurnsAFileIntoADirectory) {
	Put("a", "file");
	Publish();
	fs::remove(TreePath("a"));
	Put("a/b", "file");
	Publish();
	EXPECT_EQ(Followed(1, 2), PublishedTree());
}

TEST_F(DiffPublishing, RemovesDirectoriesThatItEmpties) {
	for (const char* name : {"a/f", "a/b/c/g", "a/b/c/h", "a-b/i", "k/l", "k/m"}) {
		Put(name, "old");
	}
	Publish();
	fs::remove_all(TreePath("a"));
	fs::remove(TreePath("k/l"));
	fs::remove(TreePath("a-b/i")); // an empty directory is left in the published tree alone
	const publisher::PublishResult result = Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"a", "dir"}, {"a/f", "none"}, {"a/b", "dir"}, {"a/b/c", "dir"}, {"a/b/c/g", "none"},
	                          {"a/b/c/h", "none"}, {"a-b", "dir"}, {"a-b/i", "none"}, {"k/l", "none"}}));
	EXPECT_EQ(result.diff->deleted, 5U);
	DeviceTree device(PublicKey());
	device.Install(Package(1));
	device.Update({Diff(2)});
	EXPECT_EQ(device.Files(), PublishedTree());
	EXPECT_EQ(device.Directories(), (std::set<std::string>{"d", "k"}));
}

TEST_F(DiffPublishing, FillsDirectoriesAgainThatItEmptiedBefore) {
	Put("a.b/f", "one");
	Publish();
	fs::remove_all(TreePath("a.b"));
	Publish();
	Put("a_b", "meets no working copy of a directory");
	Put("a.b/c/f", "two");
	Publish();
	fs::remove_all(TreePath("a.b"));
	Publish();
	EXPECT_THAT(OfferedDiffs(), ElementsAre(2, 3, 4));
	for (int from = 1; from <= 4; ++from) {
		for (int to = from + 1; to <= 4; ++to) {
			DeviceTree device(PublicKey());
			device.Install(Package(from));
			device.Update(Diffs(from, to));
			DeviceTree expected(PublicKey());
			expected.Install(Package(to));
			EXPECT_EQ(device.Files(), expected.Files()) << from << " to " << to;
			EXPECT_EQ(device.Directories(), expected.Directories()) << from << " to " << to;
		}
	}
}

TEST_F(DiffPublishing, SignsWhenItWasPublishedAndFromWhereItLeads) {
	const FixedTime time("1700000000");
	PublishChange();
	PublishChange();
	const Json::Value metadata = MetadataOf(2);
	EXPECT_EQ(metadata["published"], Json::Value(1700000000));
	EXPECT_EQ(metadata["data_version"], Json::Value(2));
	EXPECT_EQ(metadata["base_version"], Json::Value(1));
}

TEST_F(DiffPublishing, GivesTheSameBytesForTheSameTrees) {
	const FixedTime time("1700000000");
	ExecuteSql(TreePath("base"), "CREATE TABLE t(a); INSERT INTO t VALUES(1), (2), (3)");
	for (int i = 0; i < 20; ++i) {
		Put("f" + std::to_string(i), Noise(500, 5) + std::to_string(i));
	}
	Publish();
	const std::string saved = directory_ / "saved";
	fs::copy(options_.repository, saved, fs::copy_options::recursive);
	for (int i = 0; i < 20; ++i) {
		Put("f" + std::to_string(i), Noise(500, 5) + "changed");
	}
	ExecuteSql(TreePath("base"), "UPDATE t SET a = 5 WHERE a = 2");
	Publish();
	const std::string first = ReadFile(Diff(2));
	options_.repository = saved;
	Publish();
	EXPECT_EQ(ReadFile(Diff(2)), first);
}

TEST_F(DiffPublishing, NeedsNoEncoder) {
	ExecuteSql(TreePath("base"), "CREATE TABLE t(a)");
	Publish();
	ExecuteSql(TreePath("base"), "INSERT INTO t VALUES(1)");
	const Variable path("PATH", directory_.Path());
	PublishChange();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("xdelta3 is not installed")));
	EXPECT_EQ(KindsIn(2), (Kinds{{"base", "sql"}, {"text", "whole"}}));
}

TEST_F(DiffPublishing, TriesOutWhatEncodersMake) {
	Publish();
	PutProgram("xdelta3", "for last; do :; done\necho broken > \"$last\"\n");
	const Variable path("PATH", directory_ / "bin");
	PublishChange();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("\"text\" is carried in another way than vcdiff: the patch")));
	EXPECT_EQ(KindsIn(2), (Kinds{{"text", "whole"}}));
}

TEST_F(DiffPublishing, IsLeftOutUnlessItsResultIsTheNewTree) {
	Publish();
	observer_.step = [this](const std::string& what, std::uint64_t /*done*/, std::uint64_t /*count*/) {
		if (what == "verifying") {
			ChangeInWorkDirectory(options_.repository, "old/d/same");
		}
	};
	PublishChange();
	ExpectRefusal("devices would get another \"d/same\" by it");
}

TEST_F(DiffPublishing, KeepsVariablesFromEncoders) {
	Publish();
	const Variable harmful("XDELTA", "-d");
	PublishChange();
	EXPECT_EQ(KindsIn(2), (Kinds{{"text", "vcdiff"}}));
}

TEST_F(DiffPublishing, SaysWhyAnEncoderFailed) {
	Publish();
	PutProgram("xdelta3", "echo no room >&2\nexit 3\n");
	const Variable path("PATH", directory_ / "bin");
	PublishChange();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("xdelta3 failed with status 3: no room")));
}

} // namespace

} // namespace tarn::test
