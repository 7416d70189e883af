// What is remembered about files along a chain of diff packages, and what names a diff package may hold.
#include "publisher/diff_chain.h"
#include "publisher/publish_error.h"
#include "publisher/tree.h"

#include <gmock/gmock.h>

namespace tarn::test {

namespace {

using publisher::ChainState;
using publisher::DiffMember;
using publisher::FileLineage;
using publisher::PatchKind;
using publisher::TreeChange;
using publisher::TreeFile;
using ::testing::HasSubstr;
using ::testing::Optional;
using Names = std::set<std::string>;

DiffMember Member(const std::string& name, PatchKind kind) {
	return {name, "", "", kind};
}

ChainState After(const ChainState& state, const std::vector<DiffMember>& changes) {
	return state.After(changes, {"d", "e"});
}

Json::Value Metadata(const ChainState& state) {
	Json::Value metadata(Json::objectValue);
	metadata["kind"] = "diff";
	state.ToMetadata(metadata);
	return metadata;
}

TEST(ChainStateTest, BeginsWithEveryChoice) {
	EXPECT_EQ(ChainState().Of("d"), FileLineage::kOpen);
}

TEST(ChainStateTest, KeepsADatabaseWithItsKindUntilAWholeFileOrItsEnd) {
	const ChainState scripted = After({}, {Member("d", PatchKind::kScript), Member("e", PatchKind::kVcdiff)});
	EXPECT_EQ(scripted.Of("d"), FileLineage::kScripted);
	EXPECT_EQ(scripted.Of("e"), FileLineage::kPatched);
	const ChainState later = After(scripted, {Member("other", PatchKind::kVcdiff)});
	EXPECT_EQ(later.Of("d"), FileLineage::kScripted);
	EXPECT_EQ(later.Of("e"), FileLineage::kPatched);
	EXPECT_EQ(later.Of("other"), FileLineage::kOpen);
	const ChainState again = After(later, {Member("d", PatchKind::kWhole), Member("e", PatchKind::kNone)});
	EXPECT_EQ(again.Of("d"), FileLineage::kOpen);
	EXPECT_EQ(again.Of("e"), FileLineage::kOpen);
}

TEST(ChainStateTest, TravelsInMetadata) {
	const ChainState state = After({}, {Member("d", PatchKind::kScript), Member("e", PatchKind::kVcdiff)});
	const Json::Value metadata = Metadata(state);
	EXPECT_EQ(metadata["scripted_files"][0], Json::Value("d"));
	const ChainState read = ChainState::FromMetadata(metadata);
	EXPECT_EQ(read.Of("d"), FileLineage::kScripted);
	EXPECT_EQ(read.Of("e"), FileLineage::kPatched);
	EXPECT_EQ(read.Of("f"), FileLineage::kOpen);
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

TEST(ChainStateTest, AllowsNoNewScriptsOnceItsListsAreTooLong) {
	std::vector<DiffMember> many;
	Names databases;
	for (int i = 0; i < 3000; ++i) {
		many.push_back(Member("a-rather-long-name-of-a-database-" + std::to_string(i), PatchKind::kVcdiff));
		databases.insert(many.back().name);
	}
	EXPECT_FALSE(ChainState().HasRoomFor(databases));
	EXPECT_TRUE(ChainState().HasRoomFor({"d"}));
	const ChainState state = After({}, {Member("d", PatchKind::kScript)}).After(many, databases);
	EXPECT_LT(Json::writeString(Json::StreamWriterBuilder(), Metadata(state)).size(), 65536U);
	const ChainState read = ChainState::FromMetadata(Metadata(state));
	EXPECT_EQ(read.Of("d"), FileLineage::kScripted);
	EXPECT_EQ(read.Of("never seen"), FileLineage::kPatched);
	EXPECT_EQ(After(read, {Member("e", PatchKind::kWhole)}).Of("e"), FileLineage::kPatched);
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
