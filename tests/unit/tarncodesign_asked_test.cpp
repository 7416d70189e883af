// That a device opens the package that it asked for and no other, and who is told of what.
#include "codesign_archives.h"
#include "private_root.h"
#include "syslog_capture.h"

#include <tarncodesign/tarncodesign.h>

#include <gmock/gmock.h>

#include <syslog.h>

#include <memory>
#include <string>
#include <vector>

namespace tarn::test {

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kKeys = "/usr/tarn/etc/codesign";

using Context = std::unique_ptr<tarnarchive, decltype(&tarnarchive_free)>;

std::string LastReason() {
	const char* reason = nullptr;
	tarnarchive_refusal(&reason);
	return reason;
}

/** The machine's trust in a key that signed archives of both types. */
class AskedFor : public ArchiveTest {
protected:
	void SetUp() override {
		if (const std::string problem = PrivateRootProblem(); !problem.empty()) {
			GTEST_SKIP() << problem;
		}
		for (const char* type : {"5", "6"}) {
			const std::string file = std::string(kKeys) + "/" + type + "/asked-for-test.pub";
			WriteFile(file, key_.PublicPem());
			fs::permissions(fs::path(file).parent_path(), fs::perms(0755));
			fs::permissions(file, fs::perms(0644));
			keys_.push_back(file);
		}
	}
	void TearDown() override {
		tarnarchive_observe(nullptr, nullptr);
		for (const std::string& file : keys_) {
			fs::remove(file);
		}
	}

	/** A package of geo, version 1, under a name. */
	std::string Package(const std::string& name, std::uint32_t key_type = 6) {
		metadata_ = R"({"data_version":1,"id":"geo","kind":"full","published":1795280000})";
		Declared declared;
		declared.key_type = key_type;
		std::string path = directory_ / name;
		fs::rename(Seal({File("a", "content")}, declared), path);
		return path;
	}
	bool Open(const std::string& path, int key_type = TARNARCHIVE_KEYTYPE_DATA_UPDATE) {
		context_.reset(tarnarchive_init((directory_ / "out").c_str()));
		return tarnarchive_open_with_keytype(context_.get(), path.c_str(), key_type);
	}

	Context context_{nullptr, tarnarchive_free};
	SyslogCapture log_;

private:
	std::vector<std::string> keys_;
};

TEST_F(AskedFor, IsOpenedAndExtracted) {
	ASSERT_TRUE(Open(Package("geo_v1")));
	EXPECT_EQ(tarnarchive_refusal(nullptr), TARNARCHIVE_NO_REFUSAL);
	EXPECT_EQ(LastReason(), "");
	EXPECT_TRUE(tarnarchive_extract_multiple(context_.get(), nullptr, TARNARCHIVE_EXTRACT_ALL));
	EXPECT_EQ(Installed().at("a"), "content");
	EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(AskedFor, IsNothingElse) {
	const std::string path = Package("geo_v3");
	const std::string reason =
	    "the full package of geo, version 3 is asked for, and this is the full package of geo, version 1";
	EXPECT_FALSE(Open(path));
	EXPECT_EQ(log_.Count(LOG_ERR, {"tarncodesign: " + path + ": " + reason}), 1U);
	EXPECT_EQ(log_.Lines().size(), 1U);
	EXPECT_EQ(tarnarchive_refusal(nullptr), TARNARCHIVE_NOT_ASKED_FOR);
	EXPECT_EQ(LastReason(), reason);
	EXPECT_FALSE(tarnarchive_extract_multiple(context_.get(), nullptr, TARNARCHIVE_EXTRACT_ALL));
	EXPECT_EQ(tarnarchive_refusal(nullptr), TARNARCHIVE_REFUSED);
	EXPECT_THAT(Installed(), IsEmpty());
}

TEST_F(AskedFor, IsToldByTheSignedTextAlone) {
	const std::string path = Package("geo_v1");
	std::string bytes = ReadFile(path);
	bytes.replace(bytes.find("\"data_version\":1"), 16, "\"data_version\":3");
	WriteFile(directory_ / "geo_v3", bytes);
	EXPECT_FALSE(Open(directory_ / "geo_v3"));
	EXPECT_EQ(tarnarchive_refusal(nullptr), TARNARCHIVE_REFUSED);
	EXPECT_EQ(LastReason(), "has no signature by a trusted key");
}

TEST_F(AskedFor, IsRefusedWithTheKeysThatWereSkippedAndWhy) {
	const std::string path = Package("geo_v1");
	fs::permissions(fs::path(kKeys) / "6/asked-for-test.pub", fs::perms(0666));
	const std::string skipped =
	    "; skipped in /usr/tarn/etc/codesign/6: asked-for-test.pub (the file can be written by its group or by others)";
	EXPECT_FALSE(Open(path));
	EXPECT_EQ(LastReason(), "cannot be checked: there is no trusted key" + skipped);
	const fs::path other = fs::path(kKeys) / "6/other.pub";
	WriteFile(other.string(), archive::SigningKey::Generate().PublicPem());
	fs::permissions(other, fs::perms(0644));
	EXPECT_FALSE(Open(path));
	EXPECT_EQ(LastReason(), "has no signature by a trusted key" + skipped);
	fs::remove(other);
}

TEST_F(AskedFor, IsNoMatterForArchivesOfAnotherKeyType) {
	EXPECT_TRUE(Open(Package("any name", 5), 5));
	EXPECT_TRUE(log_.Lines().empty());
}

/** What an observer was told, and what it answers. */
struct Told {
	std::vector<std::string> packages;
	std::string metadata;
	const char* answer = nullptr;
};

const char* Note(void* data, const char* package, const char* metadata) {
	auto* told = static_cast<Told*>(data);
	told->packages.emplace_back(package);
	told->metadata = metadata;
	return told->answer;
}

TEST_F(AskedFor, IsToldToAnObserver) {
	Told told;
	tarnarchive_observe(Note, &told);
	const std::string path = Package("geo_v1");
	EXPECT_TRUE(Open(path));
	EXPECT_EQ(told.metadata, metadata_);
	EXPECT_FALSE(Open(Package("geo_v3")));
	EXPECT_TRUE(Open(Package("other type", 5), 5));
	EXPECT_THAT(told.packages, ElementsAre(path));
	tarnarchive_observe(nullptr, nullptr);
	EXPECT_TRUE(Open(path));
	EXPECT_EQ(told.packages.size(), 1U);
}

TEST_F(AskedFor, CanBeRefusedByAnObserver) {
	Told told;
	told.answer = "nobody wants it";
	tarnarchive_observe(Note, &told);
	const std::string path = Package("geo_v1");
	EXPECT_FALSE(Open(path));
	EXPECT_EQ(log_.Count(LOG_ERR, {"tarncodesign: " + path + ": nobody wants it"}), 1U);
	EXPECT_EQ(tarnarchive_refusal(nullptr), TARNARCHIVE_NOT_ASKED_FOR);
	EXPECT_FALSE(tarnarchive_extract_multiple(context_.get(), nullptr, TARNARCHIVE_EXTRACT_ALL));
	EXPECT_THAT(Installed(), IsEmpty());
}

} // namespace

} // namespace tarn::test
