// Archives that promise or hold more than they should, and payloads that are not what they should be.
#include "codesign_archives.h"

#include <gmock/gmock.h>

namespace tarn::test {

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ArchiveLimits : public ArchiveTest {
protected:
	static Declared Entries(std::uint64_t entries) {
		Declared declared;
		declared.entries = entries;
		return declared;
	}
	static Declared Bytes(std::uint64_t bytes) {
		Declared declared;
		declared.bytes = bytes;
		return declared;
	}

	std::vector<TarMember> two_files_ = {File("a", "12345"), File("b", "67890")};
	archive::Limits limits_ = {2, 10};
};

TEST_F(ArchiveLimits, AcceptsWhatExactlyMeetsThem) {
	EXPECT_EQ(InstallError(Seal(two_files_), limits_), "");
}

TEST_F(ArchiveLimits, RefusesADeclaredBombBeforeWritingAnything) {
	EXPECT_THAT(InstallError(Seal(two_files_), {1, 10}), HasSubstr("declares 2 members; the limit is 1"));
	EXPECT_THAT(InstallError(Seal(two_files_), {2, 9}), HasSubstr("declares 10 bytes unpacked; the limit is 9"));
	EXPECT_THAT(Installed(), IsEmpty());
}

TEST_F(ArchiveLimits, HasDefaultsThatNoArchiveMayExceed) {
	EXPECT_THAT(InstallError(Seal(two_files_, Entries(4'000'001))), HasSubstr("the limit is 4000000"));
	EXPECT_THAT(InstallError(Seal(two_files_, Bytes((256ULL << 30U) + 1))), HasSubstr("the limit is 274877906944"));
	EXPECT_THAT(InstallError(Seal(two_files_, Bytes(UINT64_MAX))), HasSubstr("the limit is 274877906944"));
	EXPECT_THAT(Installed(), IsEmpty());
}

TEST_F(ArchiveLimits, RefusesMoreThanTheHeadDeclares) {
	EXPECT_THAT(InstallError(Seal(two_files_, Entries(1))), HasSubstr("holds more members than its head declares"));
	EXPECT_EQ(Installed().count("b"), 0U);
	EmptyDestination();
	EXPECT_THAT(InstallError(Seal(two_files_, Bytes(9))), HasSubstr("holds more bytes than its head declares"));
	EXPECT_EQ(Installed().count("b"), 0U);
}

TEST_F(ArchiveLimits, RefusesLessThanTheHeadDeclares) {
	EXPECT_THAT(InstallError(Seal(two_files_, Entries(3))), HasSubstr("holds fewer members or bytes"));
	EXPECT_THAT(InstallError(Seal(two_files_, Bytes(11))), HasSubstr("holds fewer members or bytes"));
}

TEST_F(ArchiveLimits, StopsAnUndeclaredFloodOfZeros) {
	constexpr std::size_t kFlood = 64U << 20U;
	TarMember flood = Special("flood", '4');
	flood.content.assign(kFlood, '\0');
	EXPECT_THAT(InstallError(Seal({flood})), HasSubstr("unpacks to more than its head declares"));
	EXPECT_THAT(InstallError(Seal({flood}, Bytes(kFlood))), HasSubstr("is a device"));
	flood.type = '0';
	flood.name = "../flood"; // refused itself, and before its content is read
	EXPECT_THAT(InstallError(Seal({flood}, Bytes(1))), HasSubstr("unpacks to more than its head declares"));
	EXPECT_THAT(InstallError(Seal({flood}, Bytes(kFlood - 1))), HasSubstr("holds more bytes than its head declares"));
	EXPECT_THAT(Installed(), IsEmpty());
}

TEST_F(ArchiveLimits, StopsATarThatIsLargerThanItsMembersExplain) {
	const std::string tar = MakeTar(two_files_);
	const std::string long_name = MakeTar({{"././@LongLink", 'L', std::string(900'000, 'n'), "", 0644, kGnuMagic}});
	std::string bomb;
	for (int i = 0; i < 20; ++i) {
		bomb += long_name.substr(0, long_name.size() - 1024);
	}
	EXPECT_EQ(InstallError(SealFrames(FramesOf(tar), 2, 10, key_)), "");
	EXPECT_THAT(InstallError(SealFrames(FramesOf(bomb + tar), 2, 10, key_)),
	    HasSubstr("unpacks to more than its head declares"));
}

TEST_F(ArchiveLimits, RefusesAPayloadThatIsNoTar) {
	EXPECT_THAT(InstallError(SealFrames(FramesOf("no tar"), 2, 10, key_)), HasSubstr("is no readable tar"));
	EXPECT_THAT(Installed(), IsEmpty());
}

TEST_F(ArchiveLimits, RefusesAPayloadThatWasCutBeforeItWasSigned) {
	const std::string large = RandomBytes(1'000'000, 7);
	const std::string tar = MakeTar({File("a", large)});
	EXPECT_NE(InstallError(SealFrames(FramesOf(tar.substr(0, tar.size() / 2)), 1, large.size(), key_)), "");
	EmptyDestination();
	EXPECT_EQ(InstallError(SealFrames(FramesOf(tar), 1, large.size(), key_)), "");
}

TEST_F(ArchiveLimits, AcceptsFramesThatEndAnywhere) {
	const std::string tar = MakeTar(two_files_);
	for (const std::size_t size : {std::size_t{1}, std::size_t{511}, std::size_t{700}}) {
		std::vector<archive::PackedFrame> frames;
		for (std::size_t begin = 0; begin < tar.size(); begin += size) {
			frames.push_back(FrameOf(tar.substr(begin, size)));
		}
		EmptyDestination();
		EXPECT_EQ(InstallError(SealFrames(frames, 2, 10, key_)), "") << size;
		EXPECT_EQ(Installed().at("b"), "67890");
	}
}

} // namespace

} // namespace tarn::test
