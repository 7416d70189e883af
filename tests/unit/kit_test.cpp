#include "base/error.h"
#include "base/sha2.h"
#include "corpus.h"
#include "entry.h"
#include "kit/layout.h"
#include "kit/reader.h"
#include "kit/writer.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tarn::kit {

namespace {

using test::ReadFile;
using test::WriteFile;
using ::testing::HasSubstr;

std::string ErrorOf(const std::function<void()>& operation) {
	try {
		operation();
	} catch (const Error& error) {
		return error.what();
	}
	return "";
}

std::string DigestOf(const std::string& text) {
	Sha256 digest;
	digest.Add(text);
	return digest.FinishHex();
}

/** A kit of a document, a full package and a diff package, of odd sizes. */
class KitTest : public ::testing::Test {
protected:
	KitTest() {
		const UniqueFd fd(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
		std::vector<Package> packages;
		packages.push_back(PackageOf({Kind::kFull, "zones", 3, 0, {}}, full_));
		packages.push_back(PackageOf({Kind::kDiff, "zones", 3, 0, {}}, diff_));
		Write(fd.Get(), document_, std::move(packages), [this](std::uint64_t bytes) { told_ += bytes; });
	}

	Package PackageOf(Part part, const std::string& content) {
		const std::string path = directory_ / NameOf(part);
		WriteFile(path, content);
		part.size = content.size();
		return {part, UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC))};
	}
	/** All that a kit holds by name, or what is wrong with it. */
	static std::map<std::string, std::string> Contents(const Reader& reader) {
		std::map<std::string, std::string> contents;
		for (const Part& part : reader.Parts()) {
			std::string& content = contents[NameOf(part)];
			reader.Read(part, [&content](std::string_view bytes) { content += bytes; });
		}
		return contents;
	}
	std::string ProblemOf(const std::string& bytes) const {
		const std::string path = directory_ / "other.kit";
		WriteFile(path, bytes);
		return ErrorOf([&] { Contents(Reader(path)); });
	}

	test::TemporaryDirectory directory_;
	std::string path_ = directory_ / "zones.kit";
	std::string document_ = R"({"db_list":{}})";
	std::string full_ = std::string(270000, 'f') + "end";
	std::string diff_ = "d";
	std::uint64_t told_ = 0;
};

TEST_F(KitTest, IsReadAsItWasWritten) {
	const Reader reader(path_);
	EXPECT_EQ(Contents(reader), (std::map<std::string, std::string>{{"database_info.json", document_},
	                                {"zones_v3.tarn", full_}, {"zones_d3.tarn", diff_}}));
	EXPECT_EQ(reader.ReadDocument(), document_);
	EXPECT_EQ(told_, full_.size() + diff_.size());
	ASSERT_NE(reader.Find(Kind::kDiff, "zones", 3), nullptr);
	EXPECT_EQ(reader.Find(Kind::kDiff, "zones", 3)->sha256, DigestOf(diff_));
	EXPECT_EQ(reader.Find(Kind::kDiff, "zones", 4), nullptr);
	EXPECT_EQ(reader.Find(Kind::kFull, "zone", 3), nullptr);
}

TEST_F(KitTest, TheSamePackagesMakeTheSameBytes) {
	const std::string first = ReadFile(path_);
	const std::string again = directory_ / "again.kit";
	const UniqueFd fd(open(again.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
	std::vector<Package> packages;
	packages.push_back(PackageOf({Kind::kFull, "zones", 3, 0, {}}, full_));
	packages.push_back(PackageOf({Kind::kDiff, "zones", 3, 0, {}}, diff_));
	Write(fd.Get(), document_, std::move(packages), [](std::uint64_t) {});
	EXPECT_EQ(ReadFile(again), first);
}

TEST_F(KitTest, IsRefusedWhereverItIsCutOff) {
	const std::string whole = ReadFile(path_);
	const std::size_t in_package = 4096; // Within the first package, all bytes are of one kind.
	for (std::size_t size = 0; size < in_package; ++size) {
		ASSERT_NE(ProblemOf(whole.substr(0, size)), "") << size;
	}
	for (std::size_t back = 1; back < in_package; ++back) {
		ASSERT_THAT(ProblemOf(whole.substr(0, whole.size() - back)), HasSubstr("is cut off: it has ")) << back;
	}
	EXPECT_THAT(ProblemOf(whole + "x"), HasSubstr("is too long"));
}

TEST_F(KitTest, NoChangedByteChangesWhatIsRead) {
	const std::string whole = ReadFile(path_);
	const auto contents = Contents(Reader(path_));
	const std::string other = directory_ / "other.kit";
	std::vector<std::size_t> places;
	for (std::size_t at = 0; at < 3000; ++at) {
		places.push_back(at);
		places.push_back(whole.size() - 1 - at);
	}
	WriteFile(other, whole);
	const UniqueFd fd(open(other.c_str(), O_RDWR | O_CLOEXEC));
	for (const std::size_t at : places) {
		const char changed = static_cast<char>(whole[at] ^ (1 << at % 8));
		ASSERT_EQ(pwrite(fd.Get(), &changed, 1, static_cast<off_t>(at)), 1);
		const std::string problem = ErrorOf([&] { EXPECT_EQ(Contents(Reader(other)), contents); });
		// Padding is all that nothing depends on, and which white space the table has.
		ASSERT_TRUE(!problem.empty() || whole[at] == '\0' || std::isspace(whole[at]) != 0) << at;
		ASSERT_EQ(pwrite(fd.Get(), &whole[at], 1, static_cast<off_t>(at)), 1);
	}
}

TEST_F(KitTest, TellsADamagedPackageByItsName) {
	std::string bytes = ReadFile(path_);
	bytes[bytes.find("ffff") + 5] = 'g';
	EXPECT_EQ(ProblemOf(bytes), "is damaged: zones_v3.tarn is not what the table says");
}

TEST_F(KitTest, FailsWhenItBecomesShorterWhileItIsRead) {
	const Reader reader(path_);
	ASSERT_EQ(truncate(path_.c_str(), 5000), 0);
	EXPECT_EQ(ErrorOf([&] { Contents(reader); }), "became shorter while it was read");
}

TEST_F(KitTest, IsNoDirectoryAndNoFifo) {
	EXPECT_THAT(ErrorOf([&] { Reader(directory_.Path().string()); }), HasSubstr("is no regular file"));
	const std::string fifo = directory_ / "fifo";
	ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
	EXPECT_THAT(ErrorOf([&] { const Reader reader(fifo); }), HasSubstr("is no regular file"));
	EXPECT_THAT(ErrorOf([&] { Reader(directory_ / "none"); }), HasSubstr("cannot be opened: No such file"));
	EXPECT_EQ(ErrorOf([&] { Reader(directory_ / "zones_v3.tarn"); }), "is no kit");
}

TEST_F(KitTest, IsNotMadeOfAPackageThatBecameShorter) {
	std::vector<Package> packages;
	packages.push_back(PackageOf({Kind::kFull, "geo", 1, 0, {}}, "short"));
	packages.back().part.size = 6;
	const UniqueFd fd(open((directory_ / "x").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
	EXPECT_EQ(ErrorOf([&] { Write(fd.Get(), "{}", std::move(packages), [](std::uint64_t) {}); }),
	    "cannot be made: geo_v1.tarn became shorter while it was read");
}

TEST_F(KitTest, IsNotMadeWithADocumentThatNoDeviceTakes) {
	const UniqueFd fd(open((directory_ / "x").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
	EXPECT_THAT(ErrorOf([&] { Write(fd.Get(), std::string(kMaxDocumentSize + 1, ' '), {}, [](std::uint64_t) {}); }),
	    HasSubstr("too large"));
}

TEST(KitLayoutTest, HeadersTellSizesThatNeedMoreThanDigits) {
	EXPECT_EQ(SizeInHeader(MakeHeader("a", 0)), 0U);
	EXPECT_EQ(SizeInHeader(MakeHeader("a", 077777777777)), 077777777777U);
	const std::string large = MakeHeader("a", std::uint64_t{1} << 33U);
	EXPECT_EQ(large.substr(124, 12), std::string("\x80\0\0\0\0\0\0\x02\0\0\0\0", 12));
	EXPECT_EQ(ErrorOf([&] { static_cast<void>(SizeInHeader(large)); }), "is no kit");
	EXPECT_NE(ErrorOf([] { static_cast<void>(MakeHeader(std::string(100, 'n'), 1)); }), "");
}

TEST(KitLayoutTest, OffsetsCountWholeBlocks) {
	EXPECT_EQ(OffsetsOf({1, 0, 512, 513}), (std::vector<std::uint64_t>{512, 1536, 2048, 3072, 5120}));
}

constexpr char kDigest[] = "0000000000000000000000000000000000000000000000000000000000000000";

std::string PartText(const std::string& name, const std::string& kind, const std::string& more,
    const std::string& size = "1", const std::string& digest = kDigest) {
	return R"({"name":")" + name + R"(","kind":")" + kind + R"(","size":)" + size + R"(,"sha256":")" + digest + "\"" +
	       more + "}";
}

std::string TableOf(const std::string& parts, const std::string& format = "tarndbud kit 1") {
	return R"({"format":")" + format + R"(","parts":[)" + parts + "]}";
}

const std::string kDocumentPart = PartText("database_info.json", "document", "");

std::string PackageText(const std::string& id, const std::string& version = "3", const std::string& size = "1") {
	return PartText(id + "_v" + version + ".tarn", "full", R"(,"id":")" + id + R"(","data_version":)" + version, size);
}

TEST(KitTableTest, IsReadAsItWasWritten) {
	const std::vector<Part> parts = {
	    {Kind::kDocument, "", 0, 5, kDigest}, {Kind::kDiff, "zones", 2147483647, kMaxPartSize, kDigest}};
	const std::vector<Part> read = ParseTable(TableText(parts));
	ASSERT_EQ(read.size(), 2U);
	EXPECT_EQ(NameOf(read[1]), "zones_d2147483647.tarn");
	EXPECT_EQ(read[1].size, kMaxPartSize);
	EXPECT_EQ(TableText(read), TableText(parts));
}

TEST(KitTableTest, TakesNothingHostile) {
	const std::string good = kDocumentPart + "," + PackageText("zones");
	ASSERT_EQ(ErrorOf([&] { static_cast<void>(ParseTable(TableOf(good))); }), "");
	const std::string tables[] = {"", "[]", "{}", "{", "null", std::string(10000, '['), TableOf(""), TableOf("1"),
	    TableOf(good, "tarndbud kit 2"), TableOf(PackageText("zones")), TableOf(kDocumentPart + "," + kDocumentPart),
	    TableOf(PackageText("zones") + "," + kDocumentPart), TableOf(good + "," + PackageText("zones")),
	    TableOf(kDocumentPart + "," + PackageText("../zones")), TableOf(kDocumentPart + "," + PackageText("/zones")),
	    TableOf(kDocumentPart + "," + PackageText(".zones")), TableOf(kDocumentPart + "," + PackageText("-zones")),
	    TableOf(kDocumentPart + "," + PackageText("")), TableOf(kDocumentPart + "," + PackageText("zo nes")),
	    TableOf(kDocumentPart + "," + PackageText(std::string(65, 'z'))),
	    TableOf(kDocumentPart + "," + PackageText("zones", "-1")),
	    TableOf(kDocumentPart + "," + PackageText("zones", "2147483648")),
	    TableOf(kDocumentPart + "," + PackageText("zones", "3", "-1")),
	    TableOf(kDocumentPart + "," + PackageText("zones", "3", "1.5")),
	    TableOf(kDocumentPart + "," + PackageText("zones", "3", "137438953473")),
	    TableOf(kDocumentPart + "," + PackageText("zones", "3", "18446744073709551616")),
	    TableOf(PartText("database_info.json", "document", "", "2097153")),
	    TableOf(PartText("database_info.json", "document", "", "1", "00")),
	    TableOf(PartText("other.json", "document", "")),
	    TableOf(kDocumentPart + "," + PartText("zones_v4.tarn", "full", R"(,"id":"zones","data_version":3)")),
	    TableOf(kDocumentPart + "," + PartText("zones_v3.tarn", "more", R"(,"id":"zones","data_version":3)"))};
	for (const std::string& table : tables) {
		EXPECT_NE(ErrorOf([&] { static_cast<void>(ParseTable(table)); }), "") << table.substr(0, 300);
	}
}

TEST(KitCorpusTest, BreaksNoPromise) {
	test::ExpectNoBrokenPromise(TARN_KIT_CORPUS, LLVMFuzzerTestOneInput, 12);
}

} // namespace

} // namespace tarn::kit
