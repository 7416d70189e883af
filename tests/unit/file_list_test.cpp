#include "dataupdate/file_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace tarn::dataupdate {
namespace {

const std::string kDigest = std::string(48, 'a') + std::string(48, '7');

std::vector<std::string> Entries(const FileList& list) {
	std::vector<std::string> entries;
	for (std::size_t at = 0; at < list.Size(); ++at) {
		entries.push_back(std::string(list.Name(at)) + "=" + list.Text(at));
	}
	return entries;
}

TEST(FileListTest, GivesBackEveryNameAndText) {
	FileList list;
	EXPECT_TRUE(list.IsEmpty());
	const std::vector<std::string> texts = {"", kDigest, "ab", "abc", "AB", "no digits", std::string(1, '\0'), "0"};
	for (const std::string& text : texts) {
		list.Add("name " + text, text);
	}
	ASSERT_EQ(list.Size(), texts.size());
	for (std::size_t at = 0; at < texts.size(); ++at) {
		EXPECT_EQ(list.Name(at), "name " + texts[at]);
		EXPECT_EQ(list.Text(at), texts[at]);
		EXPECT_EQ(list.HasText(at), !texts[at].empty());
	}
}

TEST(FileListTest, FindsNamesOnceTheyAreSorted) {
	FileList list;
	for (const char* name : {"b", "a", "a/b", "", "c"}) {
		list.Add(name, std::string("of ") + name);
	}
	list.Add("a", "added later");
	list.Sort();
	EXPECT_THAT(Entries(list), testing::ElementsAre("=of ", "a=of a", "a/b=of a/b", "b=of b", "c=of c"));
	EXPECT_EQ(list.Find("a/b"), 2U);
	EXPECT_EQ(list.TextOf("c"), "of c");
	EXPECT_FALSE(list.Find("a/"));
	EXPECT_FALSE(list.TextOf("d"));
}

TEST(FileListTest, ComparesNamesAndTexts) {
	const auto make = [](const char* name, const std::string& text) {
		FileList list;
		list.Add("first", kDigest);
		list.Add(name, text);
		return list;
	};
	EXPECT_EQ(make("a", "1x"), make("a", "1x"));
	EXPECT_NE(make("a", "1x"), make("b", "1x"));
	EXPECT_NE(make("a", "1x"), make("a", "2x"));
	EXPECT_NE(make("a1", "x"), make("a", "1x"));
	EXPECT_NE(make("a", ""), FileList());
	// The same bytes are kept of both.
	EXPECT_NE(make("a", "4142"), make("a", "AB"));
}

TEST(FileListTest, KeepsMoreThanABlockAndFreesItWhileItIsTaken) {
	FileList list;
	std::map<std::string, FileStatus> expected;
	for (int i = 100000; i < 130000; ++i) {
		const std::string name = "/some/directory/" + std::to_string(i);
		list.Add(name, i % 10 == 0 ? "" : kDigest);
		if (i % 10 != 0) {
			expected.emplace(name, FileStatus(kDigest));
		}
	}
	list.Add("/some/" + std::string(500000, 'x'), kDigest);
	expected.emplace("/some/" + std::string(500000, 'x'), FileStatus(kDigest));
	EXPECT_EQ(FileList::TakeStatuses(std::move(list)), expected);
	EXPECT_EQ(FileList::TakeStatuses(FileList(expected)), expected);
}

TEST(FileListTest, FreesNothingEarlyThatWasAddedInAnotherOrder) {
	FileList list;
	for (int i = 130000; i > 100000; --i) {
		list.Add(std::to_string(i), kDigest);
	}
	list.Sort();
	const auto statuses = FileList::TakeStatuses(std::move(list));
	ASSERT_EQ(statuses.size(), 30000U);
	EXPECT_EQ(statuses.begin()->first, "100001");
	EXPECT_EQ(statuses.rbegin()->second.sha384_digest, kDigest);
}

TEST(FileListTest, CanBeFilledAgainAfterItWasMovedFrom) {
	FileList list;
	list.Add("a", "of a");
	const FileList taken = std::move(list);
	list.Add("b", "of b"); // NOLINT(bugprone-use-after-move): what is tested
	EXPECT_THAT(Entries(taken), testing::ElementsAre("a=of a"));
	EXPECT_EQ(list.TextOf("b"), "of b");
}

TEST(FileListTest, RefusesWhatIsTooLong) {
	FileList list;
	const std::string_view endless(kDigest.data(), std::size_t{1} << 30U); // Not looked at.
	EXPECT_THROW(list.Add(endless), std::length_error);
	EXPECT_THROW(list.Add("a", endless), std::length_error);
	EXPECT_TRUE(list.IsEmpty());
}

} // namespace
} // namespace tarn::dataupdate
