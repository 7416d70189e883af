// Which key files are trusted, and what the C functions say when they refuse.
#include "base/error.h"
#include "codesign_archives.h"
#include "syslog_capture.h"

#include <tarncodesign/tarncodesign.h>

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarn::test {

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

// Keys of other kinds, made once; their private halves were never kept.
constexpr const char* kEcKey = "-----BEGIN PUBLIC KEY-----\n"
                               "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEcYf+oDEKXCF982H6ZZWdPTfFNttm\n"
                               "ELdsbWyru+3W5fQsNkSOeVvN/39T14+VDGEj4z0OaGuY9Yaziept0nEYEA==\n"
                               "-----END PUBLIC KEY-----\n";

class TrustedKeys : public ::testing::Test {
protected:
	TrustedKeys() {
		fs::permissions(directory_.Path(), fs::perms(0755));
		Put("good.pub", key_.PublicPem());
	}

	void Put(const std::string& name, const std::string& content, mode_t mode = 0644) {
		WriteFile(directory_ / name, content);
		ASSERT_EQ(chmod((directory_ / name).c_str(), mode), 0);
	}
	std::vector<std::string> Names() {
		std::vector<std::string> names;
		for (const archive::TrustedKey& key : archive::LoadTrustedKeys(directory_.Path().string())) {
			names.push_back(key.name);
		}
		return names;
	}

	TemporaryDirectory directory_;
	archive::SigningKey key_ = archive::SigningKey::Generate();
	SyslogCapture log_;
};

TEST_F(TrustedKeys, AreAllPubFilesInNameOrder) {
	Put("also.pub", archive::SigningKey::Generate().PublicPem());
	Put("ignored.pem", key_.PublicPem());
	Put(".pub", key_.PublicPem());
	EXPECT_THAT(Names(), ElementsAre("also.pub", "good.pub"));
	EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(TrustedKeys, SkipABadFileWithAWarningAndKeepTheOthers) {
	Put("bad.pub", "no key");
	Put("empty.pub", "");
	Put("private.pub", key_.PrivatePem());
	Put("curve.pub", kEcKey);
	Put("large.pub", std::string(70'000, ' ') + key_.PublicPem());
	fs::create_directory(directory_ / "directory.pub");
	EXPECT_THAT(Names(), ElementsAre("good.pub"));
	EXPECT_EQ(log_.Count(LOG_WARNING, {"bad.pub: skipped: holds no key in PEM form"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"empty.pub: skipped:"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"private.pub: skipped: holds no key in PEM form"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"curve.pub: skipped: holds a key of another kind than Ed25519"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"large.pub: skipped:", "larger than"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"directory.pub: skipped: is not a regular file"}), 1U);
	EXPECT_EQ(log_.Lines().size(), 6U);
}

TEST_F(TrustedKeys, AreNoFilesThatOthersCouldHaveWrittenOrPlaced) {
	Put("group.pub", key_.PublicPem(), 0664);
	Put("world.pub", key_.PublicPem(), 0646);
	fs::create_symlink(directory_ / "good.pub", directory_ / "link.pub");
	EXPECT_THAT(Names(), ElementsAre("good.pub"));
	EXPECT_EQ(log_.Count(LOG_WARNING, {"group.pub: skipped:", "can be written by its group or by others"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"world.pub: skipped:", "can be written by its group or by others"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"link.pub: skipped: is a symbolic link"}), 1U);
}

TEST_F(TrustedKeys, BelongToRootOrToTheCaller) {
	if (geteuid() != 0) {
		GTEST_SKIP() << "only root can give a file away";
	}
	constexpr uid_t kSomebody = 12345;
	Put("foreign.pub", key_.PublicPem());
	const int given = chown((directory_ / "foreign.pub").c_str(), kSomebody, kSomebody);
	if (given != 0 && errno == EINVAL) {
		GTEST_SKIP() << "no file can be given away in a user namespace that maps one user only";
	}
	ASSERT_EQ(given, 0) << std::strerror(errno);
	EXPECT_THAT(Names(), ElementsAre("good.pub"));
	EXPECT_EQ(log_.Count(LOG_WARNING, {"foreign.pub: skipped:", "belongs to another user"}), 1U);
	ASSERT_EQ(chown(directory_.Path().c_str(), kSomebody, kSomebody), 0);
	EXPECT_THROW(Names(), Error);
}

TEST_F(TrustedKeys, NeedADirectoryThatNobodyElseCanWriteTo) {
	fs::permissions(directory_.Path(), fs::perms(0775));
	EXPECT_THROW(Names(), Error);
	fs::permissions(directory_.Path(), fs::perms(0755));
	EXPECT_THAT(Names(), ElementsAre("good.pub"));
	EXPECT_THROW(static_cast<void>(archive::LoadTrustedKeys(directory_ / "missing")), Error);
	EXPECT_THROW(static_cast<void>(archive::LoadTrustedKeys(directory_ / "good.pub")), Error);
}

class CFunctions : public ArchiveTest {
protected:
	SyslogCapture log_;
};

TEST_F(CFunctions, RefuseADestinationThatIsNoDirectory) {
	const std::string file = directory_ / "outside/secret";
	EXPECT_EQ(tarnarchive_init(file.c_str()), nullptr);
	EXPECT_EQ(log_.Count(LOG_ERR, {"tarncodesign: " + file + ": cannot extract into it: Not a directory"}), 1U);
	EXPECT_EQ(tarnarchive_init((directory_ / "missing").c_str()), nullptr);
	EXPECT_EQ(tarnarchive_init(nullptr), nullptr);
	EXPECT_EQ(log_.Lines().size(), 3U);
	tarnarchive_free(nullptr);
}

TEST_F(CFunctions, LogOneLineForEveryRefusal) {
	tarnarchive* context = tarnarchive_init((directory_ / "out").c_str());
	ASSERT_NE(context, nullptr);
	const std::string missing = directory_ / "missing";
	EXPECT_FALSE(tarnarchive_open_with_keytype(context, missing.c_str(), 6));
	EXPECT_EQ(log_.Count(LOG_ERR, {"tarncodesign: " + missing + ": is missing"}), 1U);
	EXPECT_FALSE(tarnarchive_extract_multiple(context, nullptr, TARNARCHIVE_EXTRACT_ALL));
	EXPECT_EQ(log_.Count(LOG_ERR, {"extraction of an archive that is not open"}), 1U);
	EXPECT_FALSE(tarnarchive_open_with_keytype(context, nullptr, 6));
	EXPECT_FALSE(tarnarchive_open_with_keytype(context, missing.c_str(), -1));
	EXPECT_FALSE(tarnarchive_open_with_keytype(nullptr, missing.c_str(), 6));
	EXPECT_FALSE(tarnarchive_extract_multiple(nullptr, nullptr, TARNARCHIVE_EXTRACT_ALL));
	EXPECT_EQ(log_.Lines().size(), 6U);
	EXPECT_EQ(log_.Count(LOG_ERR), 6U);
	tarnarchive_free(context);
}

TEST_F(CFunctions, TrustNoKeyOfAnUnknownKeyType) {
	constexpr int kUnusedType = 424242;
	const std::string archive = Seal({File("a")});
	tarnarchive* context = tarnarchive_init((directory_ / "out").c_str());
	ASSERT_NE(context, nullptr);
	EXPECT_FALSE(tarnarchive_open_with_keytype(context, archive.c_str(), kUnusedType));
	EXPECT_EQ(log_.Count(LOG_ERR, {"/usr/tarn/etc/codesign/424242"}), 1U);
	EXPECT_TRUE(Installed().empty());
	tarnarchive_free(context);
}

} // namespace

} // namespace tarn::test
