// What makes an archive acceptable before anything of it is read: signature, keys, length and every byte.
#include "base/error.h"
#include "codesign_archives.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace tarn::test {

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ArchiveCheck : public ArchiveTest {
protected:
	/** The archive is refused and nothing of it installed. */
	void ExpectRefused(const std::string& archive, const std::string& reason) {
		EXPECT_THAT(InstallError(archive), HasSubstr(reason));
		EXPECT_THAT(Installed(), IsEmpty());
		EmptyDestination();
	}

	/** A changed copy of an archive. */
	std::string Changed(const std::string& bytes) {
		std::string path = directory_ / "changed";
		WriteFile(path, bytes);
		return path;
	}

	std::string small_ = Seal({File("a", "hello")});
};

TEST_F(ArchiveCheck, AcceptsAnArchiveSignedByATrustedKey) {
	EXPECT_EQ(InstallError(small_), "");
	EXPECT_EQ(Installed(), (std::map<std::string, std::string>{{"a", "hello"}}));
}

TEST_F(ArchiveCheck, ReportsTheKeyThatSigned) {
	const auto other = archive::SigningKey::Generate();
	std::vector<archive::TrustedKey> keys;
	keys.push_back(Trusted(other));
	keys.push_back(Trusted(key_));
	EXPECT_EQ(archive::ArchiveFile(small_).Check(keys, 6), 1U);
}

TEST_F(ArchiveCheck, AcceptsOldAndNewKeyWhileKeysAreRotated) {
	const auto next = archive::SigningKey::Generate();
	const std::string signed_by_next = SealFrames(FramesOf(MakeTar({File("a", "next")})), 1, 4, next);
	ExpectRefused(signed_by_next, "has no signature by a trusted key");
	trusted_.push_back(Trusted(next));
	EXPECT_EQ(InstallError(small_), "");
	EXPECT_EQ(InstallError(signed_by_next), "");
	EXPECT_EQ(Installed().at("a"), "next");
	trusted_.erase(trusted_.begin());
	EmptyDestination();
	ExpectRefused(small_, "has no signature by a trusted key");
}

TEST_F(ArchiveCheck, RefusesEverythingWhenNoKeyIsTrusted) {
	trusted_.clear();
	ExpectRefused(small_, "there is no trusted key");
}

TEST_F(ArchiveCheck, RefusesAnArchiveForAnotherKeyType) {
	Declared other_type;
	other_type.key_type = 5;
	ExpectRefused(Seal({File("a")}, other_type), "is signed for key type 5, not 6");
}

TEST_F(ArchiveCheck, RefusesASignatureOverTheBytesWithoutTheDomain) {
	std::string bytes = ReadFile(small_);
	const auto head = archive::ArchiveFile(small_).Head();
	const auto signature = key_.Sign(std::string_view(bytes).substr(0, head.SignatureOffset()));
	bytes.replace(
	    head.SignatureOffset(), signature.size(), reinterpret_cast<const char*>(signature.data()), signature.size());
	ExpectRefused(Changed(bytes), "has no signature by a trusted key");
}

TEST_F(ArchiveCheck, RefusesASignatureOfZeros) {
	std::string bytes = ReadFile(small_);
	bytes.replace(
	    archive::ArchiveFile(small_).Head().SignatureOffset(), archive::kSignatureSize, archive::kSignatureSize, '\0');
	ExpectRefused(Changed(bytes), "has no signature by a trusted key");
}

TEST_F(ArchiveCheck, RefusesEveryFlippedBitOfASmallArchive) {
	constexpr unsigned kBits = 8;
	const std::string bytes = ReadFile(small_);
	for (std::size_t i = 0; i < bytes.size(); ++i) {
		for (unsigned bit = 0; bit < kBits; ++bit) {
			std::string flipped = bytes;
			flipped[i] = static_cast<char>(static_cast<unsigned char>(flipped[i]) ^ (1U << bit));
			ASSERT_NE(InstallError(Changed(flipped)), "") << "byte " << i << " bit " << bit;
			ASSERT_THAT(Installed(), IsEmpty()) << "byte " << i << " bit " << bit;
		}
	}
	EXPECT_EQ(InstallError(Changed(bytes)), "");
}

TEST_F(ArchiveCheck, RefusesAFlippedBitInEveryRegionOfALargeArchive) {
	const std::string content = RandomBytes(7'000'000, 1);
	const std::string archive = Seal({File("big", content)});
	const auto head = archive::ArchiveFile(archive).Head();
	ASSERT_EQ(head.frame_count, 4U);
	const std::string bytes = ReadFile(archive);
	const std::vector<std::uint64_t> offsets = {archive::kHeadSize, head.TableOffset(), head.SignatureOffset() - 1,
	    head.PayloadOffset(), head.PayloadOffset() + archive::kMaxFrameSize - 1,
	    head.PayloadOffset() + archive::kMaxFrameSize, head.PayloadOffset() + head.payload_size / 2,
	    head.FileSize() - 1};
	for (const std::uint64_t offset : offsets) {
		std::string flipped = bytes;
		flipped[offset] = static_cast<char>(flipped[offset] ^ 1);
		const bool payload = offset >= head.PayloadOffset();
		ExpectRefused(Changed(flipped), payload ? "payload differs from its signed digest" : "has no signature");
	}
	EXPECT_EQ(InstallError(Changed(bytes)), "");
	EXPECT_TRUE(Installed().at("big") == content);
}

TEST_F(ArchiveCheck, RefusesASmallArchiveCutAtAnyLength) {
	const std::string bytes = ReadFile(small_);
	for (std::size_t length = 0; length < bytes.size(); ++length) {
		ASSERT_NE(InstallError(Changed(bytes.substr(0, length))), "") << length;
		ASSERT_THAT(Installed(), IsEmpty()) << length;
	}
	EXPECT_EQ(InstallError(Changed(bytes)), "");
}

TEST_F(ArchiveCheck, RefusesTrailingBytes) {
	const std::string bytes = ReadFile(small_);
	ExpectRefused(Changed(bytes + '\0'), "is damaged: it has " + std::to_string(bytes.size() + 1) + " bytes");
	ExpectRefused(Changed(bytes + bytes), "is damaged");
}

TEST_F(ArchiveCheck, RefusesWhatIsNoArchive) {
	ExpectRefused(Changed(""), "is too short for a signed archive");
	ExpectRefused(Changed(std::string(4096, 'x')), "is not a signed archive");
	ExpectRefused(Changed("<html>" + std::string(4096, ' ')), "is not a signed archive");
	ExpectRefused(directory_ / "missing", "is missing");
	ExpectRefused(directory_ / "outside", "is not a regular file");
}

TEST_F(ArchiveCheck, RefusesALinkToAnArchive) {
	fs::create_symlink(small_, directory_ / "link");
	ExpectRefused(directory_ / "link", "is a symbolic link");
}

TEST_F(ArchiveCheck, RefusesAFifoWithoutWaitingForAWriter) {
	ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
	ExpectRefused(directory_ / "fifo", "is not a regular file");
}

TEST_F(ArchiveCheck, RefusesAHeadThatAsksForMoreMemoryThanItsFileHolds) {
	const archive::ArchiveHead good = archive::ArchiveFile(small_).Head();
	const auto expect_refused = [this](const archive::ArchiveHead& head, const std::string& reason) {
		ExpectRefused(Changed(archive::EncodeHead(head) + std::string(1000, '\0')), reason);
	};
	archive::ArchiveHead head = good;
	head.payload_size = archive::kMaxPayloadSize;
	expect_refused(head, "is damaged: it has 1048 bytes");
	head.payload_size = archive::kMaxPayloadSize + 1;
	expect_refused(head, "impossible payload size");
	head.payload_size = UINT64_MAX;
	expect_refused(head, "impossible payload size");
	head = good;
	head.metadata_size = archive::kMaxMetadataSize + 1;
	expect_refused(head, "too much metadata");
	head = good;
	head.frame_count = archive::kMaxFrames;
	expect_refused(head, "is damaged: it has 1048 bytes");
	head.frame_count = archive::kMaxFrames + 1;
	expect_refused(head, "impossible number of frames");
	head.frame_count = 0;
	expect_refused(head, "impossible number of frames");
}

TEST_F(ArchiveCheck, NeverExtractsBytesThatReplacedCheckedOnes) {
	const std::string good = Seal({File("f", RandomBytes(2'500'000, 1))});
	const std::string evil = SealFrames(
	    FramesOf(MakeTar({File("f", RandomBytes(2'500'000, 2))})), 1, 2'500'000, archive::SigningKey::Generate());
	ASSERT_EQ(fs::file_size(good), fs::file_size(evil));
	const archive::ArchiveFile archive(good);
	archive.Check(trusted_, 6);
	const std::string original = ReadFile(good);
	{
		const UniqueFd fd(open(good.c_str(), O_WRONLY | O_CLOEXEC)); // the same file, rewritten in place
		const std::string bytes = ReadFile(evil);
		ASSERT_EQ(pwrite(fd.Get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
	}
	const UniqueFd out(open((directory_ / "out").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	EXPECT_THROW(archive::Extract(archive, out.Get()), Error);
	EXPECT_THAT(Installed(), IsEmpty());
	WriteFile(good, original);
	archive::Extract(archive, out.Get());
	EXPECT_TRUE(Installed().at("f") == RandomBytes(2'500'000, 1));
}

} // namespace

} // namespace tarn::test
