// What is remembered about files along a chain of diff packages, and what names a diff package may hold.
#include "publisher/common/publish_error.h"
#include "publisher/diff/diff_chain.h"
#include "publisher/packages/tree.h"

#include <gmock/gmock.h>

namespace tarn::test {

namespace {

using publisher::ChainState;
using publisher::DiffMember;
using publisher::PatchKind;
using publisher::TreeChange;
using publisher::TreeFile;
using ::testing::HasSubstr;
using ::testing::Optional;
using Names = std::set<std::string>;

DiffMember Member(const std::string& name, PatchKind kind) {
	return {name, "", kind};
}

Json::Value Metadata(const ChainState& state) {
	Json::Value metadata(Json::objectValue);
	metadata["kind"] = "diff";
	state.ToMetadata(metadata);
	return metadata;
}

TEST(ChainStateTest, BeginsWithThePublishedBytes) {
	EXPECT_FALSE(ChainState().IsScripted("d"));
}

TEST(ChainStateTest, KnowsAScriptedDatabaseUntilAWholeFileOrItsEnd) {
	const ChainState scripted = ChainState().After(
	    {Member("d", PatchKind::kScript), Member("e", PatchKind::kVcdiff), Member("f", PatchKind::kScript)});
	EXPECT_TRUE(scripted.IsScripted("d"));
	EXPECT_FALSE(scripted.IsScripted("e"));
	const ChainState later = scripted.After({Member("other", PatchKind::kVcdiff)});
	EXPECT_TRUE(later.IsScripted("d"));
	EXPECT_FALSE(later.IsScripted("other"));
	const ChainState again = later.After({Member("d", PatchKind::kWhole), Member("f", PatchKind::kNone)});
	EXPECT_FALSE(again.IsScripted("d"));
	EXPECT_FALSE(again.IsScripted("f"));
}

TEST(ChainStateTest, TravelsInMetadata) {
	const ChainState state = ChainState().After({Member("d", PatchKind::kScript), Member("e", PatchKind::kVcdiff)});
	const Json::Value metadata = Metadata(state);
	EXPECT_EQ(metadata["scripted_files"][0], Json::Value("d"));
	const ChainState read = ChainState::FromMetadata(metadata);
	EXPECT_TRUE(read.IsScripted("d"));
	EXPECT_FALSE(read.IsScripted("e"));
}

TEST(ChainStateTest, IsNotReadFromAnythingElse) {
	EXPECT_THROW(ChainState::FromMetadata(Json::Value()), publisher::PublishError);
	Json::Value metadata(Json::objectValue);
	metadata["kind"] = "full";
	EXPECT_THROW(ChainState::FromMetadata(metadata), publisher::PublishError);
	metadata["kind"] = "diff";
	metadata["scripted_files"].append(1);
	EXPECT_THROW(ChainState::FromMetadata(metadata), publisher::PublishError);
	metadata["scripted_files"] = "d";
	EXPECT_THROW(ChainState::FromMetadata(metadata), publisher::PublishError);
}

TEST(ChainStateTest, HasRoomForAsManyNamesAsMetadataHolds) {
	Names databases;
	for (int i = 0; i < 3000; ++i) {
		databases.insert("a-rather-long-name-of-a-database-" + std::to_string(i));
	}
	EXPECT_FALSE(ChainState().HasRoomFor(databases));
	EXPECT_TRUE(ChainState().HasRoomFor({"d"}));
}

TreeChange Change(const std::string& name, bool before, bool after) {
	const TreeFile file = {name, "", 1, false};
	return {name, before ? std::optional(file) : std::nullopt, after ? std::optional(file) : std::nullopt};
}

publisher::Tree TreeOf(const Names& names) {
	publisher::Tree tree;
	for (const std::string& name : names) {
		tree.files.push_back({name, "", 1, false});
	}
	return tree;
}

TEST(NameConflict, IsTwoNamesOfOneWorkingCopy) {
	const publisher::Tree before = TreeOf({"a/b", "a.b", "c"});
	EXPECT_THAT(publisher::FindNameConflict({Change("a.b", true, true), Change("a/b", true, true)}, before, {}),
	    Optional(HasSubstr("\"a.b\" and \"a/b\"")));
	EXPECT_THAT(publisher::FindNameConflict({Change("a.b", true, true)}, before, {"a/b"}), Optional(HasSubstr("a/b")));
	EXPECT_EQ(publisher::FindNameConflict({Change("a.b", true, true), Change("c", true, true)}, before, {"a.b"}),
	    std::nullopt);
}

TEST(NameConflict, IsAFileWhereADirectoryWas) {
	EXPECT_THAT(
	    publisher::FindNameConflict({Change("a", false, true), Change("a/b/c", true, false)}, TreeOf({"a/b/c"}), {}),
	    Optional(HasSubstr("\"a\" is a file now")));
	EXPECT_THAT(publisher::FindNameConflict({Change("a/b", false, true)}, TreeOf({"d"}), {"a/b/c"}),
	    Optional(HasSubstr("a/b")));
	EXPECT_EQ(publisher::FindNameConflict({Change("a", true, false), Change("a/b", false, true)}, TreeOf({"a"}), {"a"}),
	    std::nullopt);
}

TEST(NameConflict, IsANameTooLongForAWorkingCopy) {
	const std::string name = std::string(200, 'd') + "/" + std::string(100, 'f');
	EXPECT_THAT(publisher::FindNameConflict({Change(name, true, true)}, TreeOf({name}), {}),
	    Optional(HasSubstr("longer than")));
	EXPECT_EQ(publisher::FindNameConflict({Change(name, true, false)}, TreeOf({name}), {}), std::nullopt);
}

} // namespace

} // namespace tarn::test
