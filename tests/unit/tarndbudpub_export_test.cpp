// Kits: what is put into them, and that they appear whole.
#include "archive/signing_key.h"
#include "diff_fixture.h"
#include "kit/reader.h"
#include "publisher/common/publish_error.h"
#include "publisher/kits/export.h"
#include "publisher/kits/kit_draft.h"

#include <fcntl.h>
#include <sys/file.h>

#include <csignal>
#include <set>

namespace tarn::test {

namespace {

class Exporting : public DiffPublisherTest {
protected:
	Exporting() {
		export_.repository = options_.repository;
		export_.id = "db";
		export_.keys = {PublicKey()};
		export_.file = Kit();
		Put("constant", Noise(20000, 1));
		for (int version = 1; version <= 4; ++version) {
			Put("text", std::to_string(version));
			Publish();
		}
	}

	std::string Kit() const { return directory_ / "kits/zones.kit"; }
	void SetUp() override { fs::create_directory(directory_ / "kits"); }
	publisher::ExportResult Export() { return publisher::Export(export_, observer_); }
	std::string Failure() {
		try {
			static_cast<void>(Export());
			return "";
		} catch (const publisher::PublishError& error) {
			return error.what();
		}
	}
	std::vector<std::string> Names() const {
		std::vector<std::string> names;
		const kit::Reader reader(Kit());
		for (const kit::Part& part : reader.Parts()) {
			names.push_back(NameOf(part));
		}
		return names;
	}
	Json::Value KitsDocument() const {
		Json::Value document;
		std::istringstream(kit::Reader(Kit()).ReadDocument()) >> document;
		return document;
	}
	std::vector<std::string> Beside() const { return EntriesBelow(directory_ / "kits"); }
	std::string Draft() const { return directory_ / "kits/.tarndbudpub-zones.kit.part"; }
	/** Changes a byte near the end of the package in an unfinished kit, as a bad disk might. */
	void ChangeDraft() const {
		constexpr std::size_t kNearEnd = 4000;
		std::string bytes = ReadFile(Draft());
		char& byte = bytes[bytes.size() - kNearEnd];
		byte = static_cast<char>(byte ^ 1);
		WriteFile(Draft(), bytes);
	}

	publisher::ExportOptions export_;
};

TEST_F(Exporting, HoldsTheFullPackageAndNoDiffPackagesForAnyDevice) {
	const publisher::ExportResult result = Export();
	EXPECT_THAT(Names(), ElementsAre("database_info.json", "db_v4.tarn"));
	EXPECT_EQ(result.size, fs::file_size(Package(4)));
	Json::Value expected = Document();
	expected["db_list"]["db"]["diff_files"] = Json::Value(Json::objectValue);
	EXPECT_EQ(KitsDocument(), expected);
	EXPECT_THAT(Beside(), ElementsAre("zones.kit"));
}

TEST_F(Exporting, HoldsTheChainFromAVersionAndTheFullPackageOnlyWhenAskedFor) {
	export_.from = 2;
	const publisher::ExportResult result = Export();
	EXPECT_THAT(Names(), ElementsAre("database_info.json", "db_d3.tarn", "db_d4.tarn"));
	EXPECT_EQ(KitsDocument()["db_list"]["db"]["diff_files"].getMemberNames(), (std::vector<std::string>{"3", "4"}));
	EXPECT_EQ(result.databases[0].diffs, 2U);
	EXPECT_FALSE(result.databases[0].has_full);
	export_.with_full = true;
	EXPECT_TRUE(Export().databases[0].has_full);
	EXPECT_THAT(Names(), ElementsAre("database_info.json", "db_d3.tarn", "db_d4.tarn", "db_v4.tarn"));
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(Exporting, FallsBackToTheFullPackageWhereTheChainHasAGap) {
	options_.keep_diffs = 1;
	Put("text", "5");
	Publish();
	export_.from = 2;
	static_cast<void>(Export());
	EXPECT_THAT(Names(), ElementsAre("database_info.json", "db_v5.tarn"));
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("no diff package from version 2 to 3 of db")));
	EXPECT_THAT(KitsDocument()["db_list"]["db"]["diff_files"].getMemberNames(), IsEmpty());
}

TEST_F(Exporting, HoldsSeveralDatabasesAndNoOthers) {
	for (const char* id : {"other", "third"}) {
		options_.id = id;
		Publish();
	}
	export_.from = 3;
	export_.also = {"other"};
	static_cast<void>(Export());
	EXPECT_THAT(Names(), ElementsAre("database_info.json", "db_d4.tarn", "other_v1.tarn"));
	EXPECT_EQ(KitsDocument()["db_list"].getMemberNames(), (std::vector<std::string>{"db", "other"}));
}

TEST_F(Exporting, SaysWhatCannotBeExported) {
	export_.from = 4;
	EXPECT_EQ(Failure(), "There is no version of db above 4: the newest is 4.");
	export_.from.reset();
	export_.id = "none";
	EXPECT_THAT(Failure(), HasSubstr("names no version of none"));
	export_.id = "../db";
	EXPECT_THAT(Failure(), HasSubstr("must be 1 to 64 letters"));
	export_.id = "db";
	export_.with_full = true;
	EXPECT_THAT(Failure(), HasSubstr("--with-full goes with --from"));
	export_.with_full = false;
	export_.also = {"db"};
	EXPECT_THAT(Failure(), HasSubstr("is in the kit already"));
	export_.also.clear();
	export_.db_version = "2";
	EXPECT_THAT(Failure(), HasSubstr("database_info/2 cannot be read"));
	EXPECT_THAT(Beside(), IsEmpty());
}

TEST_F(Exporting, HoldsNoPackageThatNoGivenKeySigned) {
	archive::GenerateKeyFiles(directory_ / "foreign");
	export_.keys = {directory_ / "foreign.pub"};
	EXPECT_THAT(Failure(), HasSubstr("db_v4.tarn"));
	EXPECT_THAT(Beside(), IsEmpty());
}

TEST_F(Exporting, HoldsNoPackageThatIsDamagedMissingOrOfAnotherVersion) {
	export_.from = 2;
	fs::copy_file(Diff(2), Diff(3), fs::copy_options::overwrite_existing);
	EXPECT_THAT(Failure(), HasSubstr("is not the diff package of version 3"));
	fs::remove(Diff(3));
	EXPECT_THAT(Failure(), HasSubstr("cannot be put into the kit"));
	export_.from.reset();
	fs::resize_file(Package(4), fs::file_size(Package(4)) - 1);
	EXPECT_THAT(Failure(), HasSubstr("db_v4.tarn"));
	EXPECT_THAT(Beside(), IsEmpty());
}

TEST_F(Exporting, LeavesTheOldKitUntilTheNewOneIsWhole) {
	WriteFile(Kit(), "the old one");
	export_.file = directory_ / "kits/none/zones.kit";
	EXPECT_THAT(Failure(), HasSubstr("cannot be written"));
	EXPECT_FALSE(fs::exists(directory_ / "kits/none"));
	export_.file = directory_ / "kits";
	EXPECT_THAT(Failure(), HasSubstr("it is a directory"));
	export_.file = Kit();
	EXPECT_TRUE(IsKilled([&] {
		observer_.step = [](auto&&...) {};
		const publisher::KitDraft draft(Kit());
		raise(SIGKILL);
	}));
	EXPECT_EQ(ReadFile(Kit()), "the old one");
	EXPECT_EQ(Beside().size(), 2U);
	static_cast<void>(Export());
	EXPECT_THAT(Beside(), ElementsAre("zones.kit")) << "what the killed one left was used";
	EXPECT_EQ(Names().size(), 2U);
}

TEST_F(Exporting, LeavesTheOldKitWhenTheNewOneIsNotReadAsItWasWritten) {
	WriteFile(Kit(), "the old one");
	options_.keep_diffs = 0;
	Put("large", Noise(18'000'000, 2)); // of which the first step of the check, after 16 MiB, does not see the end
	Publish();
	bool is_changed = false;
	observer_.step = [&](const std::string& what, std::uint64_t /*done*/, std::uint64_t /*count*/) {
		if (what == "checking MiB" && !is_changed) {
			ChangeDraft();
			is_changed = true;
		}
	};
	EXPECT_THAT(Failure(), HasSubstr("is damaged: db_v5.tarn is not what the table says"));
	EXPECT_TRUE(ReadFile(Kit()) == "the old one") << fs::file_size(Kit());
}

TEST_F(Exporting, OnlyOneProcessWritesAKit) {
	const publisher::KitDraft other(Kit());
	EXPECT_THAT(Failure(), HasSubstr("while another process writes it"));
	EXPECT_TRUE(fs::exists(other.Name()));
}

TEST_F(Exporting, WritesThroughNoLinkThatLiesInTheDraftsPlace) {
	WriteFile(directory_ / "precious", "as it was");
	fs::create_symlink(directory_ / "precious", Draft());
	EXPECT_THAT(Failure(), HasSubstr("cannot be written"));
	fs::remove(Draft());
	fs::create_hard_link(directory_ / "precious", Draft());
	EXPECT_THAT(Failure(), HasSubstr("is in the way; remove it."));
	EXPECT_EQ(ReadFile(directory_ / "precious"), "as it was");
}

TEST_F(Exporting, WritesNothingIntoTheRepository) {
	const std::vector<std::string> before = RepositoryFiles();
	static_cast<void>(Export());
	EXPECT_EQ(RepositoryFiles(), before);
}

} // namespace

} // namespace tarn::test
