#include "dataupdate/internal/patch_description.h"
#include "library_test.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

class PatchDescriptionTest : public testing::Test {
protected:
	PatchDescriptionTest() { WriteFile(package_ + "/in", "content"); }

	std::vector<PatchMember> Read(const std::string& description) const {
		WriteFile(package_ + "/patch_infos.json", description);
		return ReadPatchDescription(package_);
	}
	std::string Failure(const std::string& description) const {
		return MessageOf([&] { Read(description); });
	}
	/** What becomes of a member with this name, or with this input file. */
	std::string FailureOfName(const std::string& name) const {
		Json::Value description;
		description[name]["operation"] = "create";
		description[name]["input_file"] = "in";
		return Failure(description.toStyledString());
	}
	static std::string Describe(const std::string& input, const std::string& operation) {
		Json::Value description;
		description["f"]["operation"] = operation;
		description["f"]["input_file"] = input;
		return description.toStyledString();
	}
	std::string FailureOfInput(const std::string& input, const std::string& operation = "update") const {
		return Failure(Describe(input, operation));
	}
	std::string InputOf(const std::string& input, const std::string& operation) const {
		return Read(Describe(input, operation)).at(0).input;
	}

	test::TemporaryDirectory directory_;
	std::string package_ = directory_ / "package";
};

TEST_F(PatchDescriptionTest, ListsItsMembersByName) {
	WriteFile(package_ + "/deep/er/in", "");
	const auto members = Read(R"({"b": {"operation": "update", "input_file": "in"}, "a/c": {"operation": "create",
	    "input_file": "deep/er/in"}, "a": {"operation": "delete"}, "B": {"operation": "move"}})");
	std::vector<std::string> lines;
	lines.reserve(members.size());
	for (const PatchMember& member : members) {
		lines.push_back(member.name + "|" + member.operation + "|" + member.input);
	}
	EXPECT_THAT(lines, ElementsAre("B|move|" + package_ + "/", "a|delete|" + package_ + "/",
	                       "a/c|create|" + package_ + "/deep/er/in", "b|update|" + package_ + "/in"));
}

TEST_F(PatchDescriptionTest, MayBeEmpty) {
	EXPECT_THAT(Read("{}"), IsEmpty());
}

TEST_F(PatchDescriptionTest, IsAnObjectOfObjects) {
	const std::string path = package_ + "/patch_infos.json";
	const auto error = ErrorOf([this] { ReadPatchDescription(package_); });
	EXPECT_EQ(error.what(), "File not exist: " + path);
	EXPECT_EQ(Failure("{"), "Fail to decode: " + path);
	EXPECT_EQ(Failure(""), "Fail to decode: " + path);
	for (const std::string wrong : {"[]", "\"text\"", R"({"f": "delete"})", R"({"f": ["delete"]})"}) {
		EXPECT_THROW(Read(wrong), Json::LogicError) << wrong;
	}
	EXPECT_THAT(Read("null"), IsEmpty()); // As JsonCpp reads it.
}

TEST_F(PatchDescriptionTest, HasALimitedLengthAndNumberOfValues) {
	const std::string too_large = "Too large a description of patches: " + package_ + "/patch_infos.json";
	constexpr std::size_t kFrame = sizeof("{\"\":{}}") - 1;
	const auto named = [](std::size_t bytes) { return "{\"" + std::string(bytes - kFrame, 'x') + "\":{}}"; };
	EXPECT_EQ(Read(named(kMaxDescriptionBytes)).size(), 1U);
	EXPECT_EQ(Failure(named(kMaxDescriptionBytes + 1)), too_large);
	const auto listing = [](std::uint64_t commas) { // beside three brackets
		std::string values = "{\"a\":{\"operation\":\"delete\",\"x\":[";
		for (std::uint64_t i = 1; i < commas; ++i) {
			values += "0,";
		}
		return values + "0]}}";
	};
	EXPECT_EQ(Read(listing(kMaxDescriptionValues - 3)).size(), 1U);
	EXPECT_EQ(Failure(listing(kMaxDescriptionValues - 2)), too_large);
	// As the publisher writes it for as many files as it should be enough for.
	std::string usual = "{";
	for (int i = 0; i < 200'000; ++i) {
		const std::string number = std::to_string(1'000'000 + i);
		usual +=
		    (i == 0 ? "\"" : ",\"") + std::string(232, 'n') + number + R"(":{"input_file":"","operation":"delete"})";
	}
	EXPECT_EQ(Read(usual + "}").size(), 200'000U);
}

TEST_F(PatchDescriptionTest, IsNotUsedWhereItsSizeCannotBeRead) {
	const std::string path = package_ + "/patch_infos.json";
	fs::create_directory(path);
	EXPECT_EQ(MessageOf([this] { ReadPatchDescription(package_); }), "Fail to read: " + path);
}

TEST_F(PatchDescriptionTest, HoldsOperationAndInputAsText) {
	for (const std::string wrong : {R"({"f": {"operation": ["delete"]}})", R"({"f": {"operation": {}}})",
	         R"({"f": {"operation": "delete", "input_file": {"a": 1}}})"}) {
		EXPECT_THROW(Read(wrong), Json::LogicError) << wrong;
	}
	EXPECT_EQ(Read(R"({"f": {"operation": 2}})").at(0).operation, "2"); // What JsonCpp has a text for.
	EXPECT_THAT(Read(R"({"f": {}})").at(0).operation, IsEmpty());       // No operation is an unknown one.
}

TEST_F(PatchDescriptionTest, RefusesNamesThatCouldLeadOutOrNameNoFile) {
	for (const std::string name :
	    {"../x", "..", "a/../../x", "a/..", "/etc/passwd", "/", "", ".", "a/.", "a/", "//x"}) {
		EXPECT_EQ(FailureOfName(name), "Illegal file name in diff package: " + name);
	}
	EXPECT_EQ(FailureOfName(std::string("a\0b", 3)), "Illegal file name in diff package: a");
}

TEST_F(PatchDescriptionTest, TakesOtherSpellings) {
	for (const std::string name : {"./x", "a//x", "a/./x", ".//a/x"}) {
		Json::Value description;
		description[name]["operation"] = "delete";
		EXPECT_EQ(Read(description.toStyledString()).at(0).name, name);
	}
	for (const std::string input : {"./in", ".//in", "deep//in", "deep/./in", ""}) {
		EXPECT_EQ(InputOf(input, "update"), package_ + "/" + input);
	}
}

TEST_F(PatchDescriptionTest, TakesNamesThatOnlyLookOdd) {
	WriteFile(package_ + "/..in", "");
	EXPECT_EQ(Read(R"({"...": {"operation": "create", "input_file": "..in"}, "..a/b..": {"operation": "delete"},
	    "a b\\c": {"operation": "delete"}, ".hidden": {"operation": "delete"}, "-": {"operation": "delete"}})")
	              .size(),
	    5U);
}

TEST_F(PatchDescriptionTest, RefusesInputsThatLeadOutOfThePackage) {
	WriteFile(directory_ / "secret", "secret");
	for (const std::string input : {"../secret", "deep/../../secret", "/etc/passwd", "..", "missing/../in", "//in"}) {
		EXPECT_EQ(FailureOfInput(input), "Illegal input file in diff package: " + input);
		EXPECT_EQ(FailureOfInput(input, "create"), "Illegal input file in diff package: " + input);
	}
	EXPECT_EQ(FailureOfInput(std::string("in\0x", 4)), "Illegal input file in diff package: in");
	EXPECT_EQ(FailureOfInput("../secret", "delete"), "Illegal input file in diff package: ../secret");
	EXPECT_EQ(FailureOfInput("../secret", "unknown"), "Illegal input file in diff package: ../secret");
}

TEST_F(PatchDescriptionTest, RefusesInputsThatAreLinksOrLieBehindOne) {
	WriteFile(directory_ / "outside/secret", "secret");
	fs::create_symlink("in", package_ + "/link");
	fs::create_symlink("nowhere", package_ + "/dangling");
	fs::create_directory_symlink(directory_ / "outside", package_ + "/door");
	for (const std::string input : {"link", "dangling", "door/secret", "door", ".//door/secret"}) {
		EXPECT_EQ(FailureOfInput(input), "Illegal input file in diff package: " + input);
	}
	for (const std::string input : {"door/secret", ".//door/secret", "door/"}) {
		EXPECT_EQ(FailureOfInput(input, "create"), "Illegal input file in diff package: " + input);
	}
	for (const std::string input : {"link", "./dangling", "door"}) { // Copied as links, not followed.
		EXPECT_EQ(InputOf(input, "create"), package_ + "/" + input);
	}
}

TEST_F(PatchDescriptionTest, LeavesAnInputThatIsNoFileToItsUse) {
	fs::create_directory(package_ + "/deep");
	EXPECT_EQ(Read(R"({"f": {"operation": "create", "input_file": "deep"}})").at(0).input, package_ + "/deep");
	EXPECT_EQ(Read(R"({"f": {"operation": "create", "input_file": "missing"}})").at(0).input, package_ + "/missing");
}

TEST_F(PatchDescriptionTest, KnowsAPackageThatIsReachedByALink) {
	fs::create_directory_symlink(package_, directory_ / "alias");
	Read(R"({"f": {"operation": "create", "input_file": "in"}})");
	EXPECT_EQ(ReadPatchDescription(directory_ / "alias").at(0).input, directory_ / "alias/in");
}

} // namespace
} // namespace tarn::dataupdate
