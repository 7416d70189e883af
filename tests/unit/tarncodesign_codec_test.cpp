// Frames of every codec: what they hold comes back, and hostile ones end in an error of their own.
#include "archive/compressor.h"
#include "base/error.h"
#include "codesign_archives.h"

#include <gmock/gmock.h>
#include <zstd.h>

#include <brotli/encode.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <memory>
#include <random>

namespace tarn::test {

namespace {

using archive::Codec;
using ::testing::AnyOf;
using ::testing::HasSubstr;

const std::vector<Codec> kAll = {Codec::kStored, Codec::kZstd, Codec::kBrotli, Codec::kLzma, Codec::kBzip2};
const std::vector<Codec> kCompressing = {Codec::kZstd, Codec::kBrotli, Codec::kLzma, Codec::kBzip2};
constexpr int kLevel = 3;

/** Bytes with repetitions of every length and distance. */
std::string Mixed(std::size_t size, unsigned seed) {
	std::mt19937 generator(seed);
	std::string bytes;
	while (bytes.size() < size) {
		if (bytes.size() > 1 && generator() % 2 == 0) {
			const std::size_t from = generator() % bytes.size();
			bytes += bytes.substr(from, generator() % 300);
		} else {
			bytes += RandomBytes(generator() % 40, static_cast<unsigned>(generator()));
		}
	}
	bytes.resize(size);
	return bytes;
}

std::string Unpack(Codec codec, const std::string& packed, std::size_t size) {
	std::string result(size, '\0');
	archive::Decompress(codec, packed, result.data(), size);
	return result;
}

std::string UnpackError(Codec codec, const std::string& packed, std::size_t size) {
	try {
		Unpack(codec, packed, size);
		return "";
	} catch (const Error& error) {
		EXPECT_THAT(error.what(), HasSubstr(std::string("cannot be decompressed (") + CodecName(codec) + "): "));
		return error.what();
	}
}

TEST(Codecs, GiveBackWhatTheyGot) {
	unsigned seed = 0;
	for (const unsigned size : {1U, 2U, 100U, 4095U, 4096U, 4097U, 70'000U, 1'000'003U}) {
		const std::string bytes = Mixed(size, ++seed);
		for (const Codec codec : kAll) {
			const std::string packed = archive::Compress(codec, bytes, kLevel);
			EXPECT_TRUE(Unpack(codec, packed, size) == bytes) << CodecName(codec) << " " << size;
		}
	}
}

TEST(Codecs, GiveBackTheLargestFrame) {
	std::string bytes = Mixed(archive::kMaxFrameSize / 4, 1);
	bytes.resize(archive::kMaxFrameSize, 'x');
	for (const Codec codec : kAll) {
		EXPECT_TRUE(Unpack(codec, archive::Compress(codec, bytes, 1), bytes.size()) == bytes) << CodecName(codec);
	}
}

TEST(Codecs, RefuseMoreAndLessThanIsDeclared) {
	const std::string bytes = Mixed(50'000, 2);
	for (const Codec codec : kAll) {
		const std::string packed = archive::Compress(codec, bytes, kLevel);
		EXPECT_NE(UnpackError(codec, packed, bytes.size() - 1), "") << CodecName(codec);
		EXPECT_NE(UnpackError(codec, packed, 1), "") << CodecName(codec);
		EXPECT_THAT(UnpackError(codec, packed, bytes.size() + 1), HasSubstr("ends in the middle"));
	}
}

TEST(Codecs, StopABomb) {
	const std::string bytes(archive::kMaxFrameSize, '\0');
	for (const Codec codec : kCompressing) {
		const std::string packed = archive::Compress(codec, bytes, kLevel);
		ASSERT_LT(packed.size(), 2000U) << CodecName(codec);
		EXPECT_THAT(
		    UnpackError(codec, packed, 10'000), AnyOf(HasSubstr("more than its frame"), HasSubstr("too small")));
	}
}

TEST(Codecs, RefuseEveryCutFrame) {
	const std::string bytes = Mixed(3'000, 3);
	for (const Codec codec : kAll) {
		const std::string packed = archive::Compress(codec, bytes, kLevel);
		for (std::size_t size = 0; size < packed.size(); ++size) {
			ASSERT_NE(UnpackError(codec, packed.substr(0, size), bytes.size()), "") << CodecName(codec) << " " << size;
		}
	}
}

TEST(Codecs, RefuseTrailingBytes) {
	const std::string bytes = Mixed(3'000, 4);
	for (const Codec codec : kAll) {
		const std::string packed = archive::Compress(codec, bytes, kLevel);
		EXPECT_NE(UnpackError(codec, packed + '\0', bytes.size()), "") << CodecName(codec);
		EXPECT_NE(UnpackError(codec, packed + packed, bytes.size()), "") << CodecName(codec);
	}
}

TEST(Codecs, RefuseBytesOfAnotherCodec) {
	const std::string bytes = Mixed(3'000, 5);
	for (const Codec from : kCompressing) {
		const std::string packed = archive::Compress(from, bytes, kLevel);
		for (const Codec to : kAll) {
			if (from != to) {
				EXPECT_NE(UnpackError(to, packed, bytes.size()), "") << CodecName(from) << " as " << CodecName(to);
			}
		}
	}
}

TEST(Codecs, EndWithAResultOrAnErrorWhateverByteIsDamaged) {
	const std::string bytes = Mixed(2'000, 6);
	for (const Codec codec : kCompressing) {
		const std::string packed = archive::Compress(codec, bytes, kLevel);
		std::size_t refused = 0;
		for (std::size_t at = 0; at < packed.size(); ++at) {
			for (const unsigned mask : {0x01U, 0x80U, 0xffU}) {
				std::string damaged = packed;
				damaged[at] = static_cast<char>(static_cast<unsigned char>(damaged[at]) ^ mask);
				refused += UnpackError(codec, damaged, bytes.size()).empty() ? 0U : 1U;
			}
		}
		EXPECT_GT(refused, packed.size() / 100) << CodecName(codec);
	}
}

TEST(Codecs, RefuseABrotliWindowThatNeedsMuchMemory) {
	constexpr std::size_t kSize = std::size_t{24} << 20U;
	const std::string bytes = RandomBytes(kSize, 7);
	std::size_t size = BrotliEncoderMaxCompressedSize(kSize);
	std::string packed(size, '\0');
	constexpr int kQuality = 1;
	ASSERT_EQ(
	    BrotliEncoderCompress(kQuality, BROTLI_MAX_WINDOW_BITS, BROTLI_MODE_GENERIC, kSize,
	        reinterpret_cast<const std::uint8_t*>(bytes.data()), &size, reinterpret_cast<std::uint8_t*>(packed.data())),
	    BROTLI_TRUE);
	packed.resize(size);
	EXPECT_NE(UnpackError(Codec::kBrotli, packed, kSize), "") << "the window is larger than all memory allowed";
}

/** While it exists, the process gets so many more bytes of memory and then none. */
class LittleMemory {
public:
	explicit LittleMemory(rlim_t more) {
		getrlimit(RLIMIT_DATA, &before_);
		const rlimit little = {DataBytes() + more, before_.rlim_max};
		EXPECT_EQ(setrlimit(RLIMIT_DATA, &little), 0);
	}
	~LittleMemory() { setrlimit(RLIMIT_DATA, &before_); }
	LittleMemory(const LittleMemory&) = delete;
	LittleMemory& operator=(const LittleMemory&) = delete;

private:
	static rlim_t DataBytes() {
		constexpr std::string_view kName = "VmData:";
		std::ifstream status("/proc/self/status");
		for (std::string line; std::getline(status, line);) {
			if (line.compare(0, kName.size(), kName) == 0) {
				return std::stoull(line.substr(kName.size())) << 10U;
			}
		}
		ADD_FAILURE() << "no VmData";
		return 0;
	}

	rlimit before_{};
};

/** A frame that asks its reader for a window of so many bits, whatever it holds. */
std::string ZstdWithWindow(const std::string& bytes, int window_bits) {
	const std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context(ZSTD_createCCtx(), ZSTD_freeCCtx);
	ZSTD_CCtx_setParameter(context.get(), ZSTD_c_windowLog, window_bits);
	std::string packed(ZSTD_compressBound(bytes.size()), '\0');
	ZSTD_inBuffer in = {bytes.data(), bytes.size(), 0};
	ZSTD_outBuffer out = {packed.data(), packed.size(), 0};
	// Two calls, so that the frame begins before its size is known: with its size it would name no window.
	EXPECT_EQ(ZSTD_isError(ZSTD_compressStream2(context.get(), &out, &in, ZSTD_e_flush)), 0U);
	EXPECT_EQ(ZSTD_compressStream2(context.get(), &out, &in, ZSTD_e_end), 0U);
	packed.resize(out.pos);
	return packed;
}

TEST(Codecs, TakeNoMemoryForTheWindowThatAZstdFrameAsksFor) {
	constexpr int kWindowBits = 27;
	const std::string bytes = Mixed(100'000, 13);
	const std::string packed = ZstdWithWindow(bytes, kWindowBits);
	constexpr unsigned kWindowByte = 5; // Behind the magic number and the descriptor.
	ASSERT_EQ(static_cast<unsigned char>(packed[4]) & 0x20U, 0U) << "it names a window";
	ASSERT_EQ(static_cast<unsigned char>(packed[kWindowByte]) >> 3U, kWindowBits - 10U);
	const LittleMemory little(rlim_t{32} << 20U);
	EXPECT_TRUE(Unpack(Codec::kZstd, packed, bytes.size()) == bytes);
}

class ArchiveFrames : public ArchiveTest {
protected:
	std::vector<TarMember> members_ = {File("a", Mixed(300'000, 8)), File("b", "67890")};
	std::string tar_ = MakeTar(members_);
	std::uint64_t bytes_ = 300'005;

	std::string Refusal(const archive::PackedFrame& frame) {
		EmptyDestination();
		return InstallError(SealFrames({frame}, 2, bytes_, key_));
	}
};

TEST_F(ArchiveFrames, OfEveryCodecInstall) {
	std::vector<archive::PackedFrame> mixed;
	for (const Codec codec : kAll) {
		EmptyDestination();
		EXPECT_EQ(InstallError(SealFrames(FramesOf(tar_, codec), 2, bytes_, key_)), "") << CodecName(codec);
		EXPECT_TRUE(Installed().at("a") == members_[0].content);
		const std::size_t share = tar_.size() / kAll.size() + 1;
		mixed.push_back(FrameOf(tar_.substr(mixed.size() * share, share), codec));
	}
	EmptyDestination();
	EXPECT_EQ(InstallError(SealFrames(mixed, 2, bytes_, key_)), "");
	EXPECT_TRUE(Installed().at("a") == members_[0].content);
}

TEST_F(ArchiveFrames, ThatAreDamagedButSignedAreRefused) {
	for (const Codec codec : kCompressing) {
		const archive::PackedFrame good = FrameOf(tar_, codec);
		archive::PackedFrame frame = good;
		std::fill_n(frame.packed.begin() + 5, 100, '\x55');
		EXPECT_THAT(Refusal(frame), HasSubstr("cannot be decompressed")) << CodecName(codec);
		frame.packed = good.packed.substr(0, good.packed.size() / 2);
		EXPECT_THAT(Refusal(frame), HasSubstr("cannot be decompressed")) << CodecName(codec);
		frame.packed = good.packed + "tail";
		EXPECT_THAT(Refusal(frame), HasSubstr("cannot be decompressed")) << CodecName(codec);
		frame = good;
		--frame.frame.unpacked_size;
		EXPECT_THAT(Refusal(frame), HasSubstr("cannot be decompressed")) << CodecName(codec);
	}
}

TEST_F(ArchiveFrames, OfAnUnknownCodecNeedANewerReader) {
	archive::PackedFrame frame = FrameOf(tar_);
	frame.frame.codec = static_cast<Codec>(archive::kCodecCount);
	EXPECT_THAT(Refusal(frame), HasSubstr("is compressed in a way that needs a newer reader, number 5"));
}

TEST_F(ArchiveFrames, OfImpossibleSizesAreRefused) {
	archive::PackedFrame frame = FrameOf(tar_);
	for (const std::uint32_t size : {0U, 1U, archive::kMaxFrameSize + 1, UINT32_MAX}) {
		frame.frame.unpacked_size = size;
		EXPECT_THAT(Refusal(frame), HasSubstr("has a frame of an impossible size")) << size;
	}
	EXPECT_THAT(Refusal(MakeFrame(Codec::kZstd, "", 100)), HasSubstr("impossible payload size"));
}

TEST_F(ArchiveFrames, ThatUnpackToMoreThanTheHeadDeclaresAreRefusedBeforeTheyDo) {
	const std::vector<archive::PackedFrame> bomb(100, FrameOf(std::string(archive::kMaxFrameSize, '\0')));
	EXPECT_THAT(InstallError(SealFrames(bomb, 2, 10, key_)), HasSubstr("unpacks to more than its head declares"));
}

TEST_F(ArchiveFrames, ThatFailLateEndTheWorkOfAllThreads) {
	std::vector<archive::PackedFrame> frames;
	constexpr std::size_t kShare = 10'000;
	for (std::size_t begin = 0; begin < tar_.size(); begin += kShare) {
		frames.push_back(FrameOf(tar_.substr(begin, kShare)));
	}
	frames[frames.size() / 2].packed[0] = '\xff';
	for (int round = 0; round < 20; ++round) {
		EmptyDestination();
		EXPECT_THAT(InstallError(SealFrames(frames, 2, bytes_, key_)), HasSubstr("cannot be decompressed (zstd)"));
	}
}

TEST_F(ArchiveFrames, AreTheSameForTheSameContent) {
	const std::string large = Mixed(5'000'000, 9);
	constexpr std::uint64_t kMaxSmall = 100'000;
	for (const int level : {1, 12, 16}) {
		std::string first;
		for (int round = 0; round < 2; ++round) {
			std::string all;
			archive::Packer packer(level, kMaxSmall,
			    [&all](const archive::PackedFrame& frame) { all += EncodeFrame(frame.frame) + frame.packed; });
			packer.Write(large.substr(0, 700'000));
			packer.BeginGroup();
			packer.Write(large.substr(700'000));
			packer.Finish();
			EXPECT_TRUE(round == 0 || all == first) << level;
			first = all;
		}
	}
}

/** Rows of two kinds of symbols in turns, which brotli makes smaller than zstd by more than its time is worth. */
std::string Rows(std::size_t size) {
	constexpr std::size_t kLength = 3000;
	const std::string random = RandomBytes(size, 12);
	std::string rows;
	for (std::size_t at = 0; at < size; ++at) {
		constexpr std::array<std::string_view, 2> kSymbols = {"0123456789abcdef", "ACGT"};
		const std::string_view symbols = kSymbols.at(at / kLength % 2);
		rows += symbols[static_cast<unsigned char>(random[at]) % symbols.size()];
	}
	return rows;
}

constexpr std::size_t kGroupSize = std::size_t{256} << 10U; // which makes a frame

/** The numbers of the frames that devices unpack more slowly. */
std::vector<std::size_t> SlowFrames(const std::string& bytes, int level) {
	std::vector<std::size_t> slow;
	std::size_t number = 0;
	archive::Packer packer(level, 0, [&](const archive::PackedFrame& frame) {
		if (frame.frame.codec != Codec::kZstd && frame.frame.codec != Codec::kStored) {
			slow.push_back(number);
		}
		++number;
	});
	for (std::size_t begin = 0; begin < bytes.size(); begin += kGroupSize) {
		packer.BeginGroup();
		packer.Write(bytes.substr(begin, kGroupSize));
	}
	packer.Finish();
	return slow;
}

TEST_F(ArchiveFrames, OfALargePayloadCostDevicesTimeInAQuarterOfThemUnlessBytesCountMost) {
	const std::string rows = Rows(std::size_t{1} << 20U);
	EXPECT_EQ(SlowFrames(rows, archive::kMaxLevel).size(), 4U);
	EXPECT_EQ(SlowFrames(rows, archive::kDefaultLevel).size(), 1U);
	EXPECT_EQ(SlowFrames(rows, archive::kMinMixedLevel - 1).size(), 0U);
}

TEST_F(ArchiveFrames, ThatGainMostGetTheSlowCodecs) {
	// Random bytes at its beginning are what a frame gains less by.
	const std::string random = RandomBytes(kGroupSize / 3, 13);
	const std::string mixed = random + Rows(kGroupSize - random.size());
	const std::string rows = Rows(kGroupSize);
	const std::string all = mixed + mixed + rows + mixed;
	EXPECT_EQ(SlowFrames(all, archive::kMaxLevel).size(), 4U) << "all of them gain";
	EXPECT_EQ(SlowFrames(all, archive::kDefaultLevel), std::vector<std::size_t>{2});
}

TEST_F(ArchiveFrames, OfASmallPayloadFollowItsGroups) {
	const std::string text = std::string(40'000, 'a') + Mixed(40'000, 10);
	const std::vector<archive::PackedFrame> frames =
	    archive::PackGroups({text, "", RandomBytes(50'000, 11), "{}"}, archive::kDefaultLevel);
	ASSERT_EQ(frames.size(), 2U) << "an empty group has no frame, and a tiny one is not worth it";
	EXPECT_NE(frames[0].frame.codec, Codec::kStored);
	EXPECT_EQ(frames[1].frame.codec, Codec::kStored);
	EXPECT_EQ(frames[1].frame.unpacked_size, 50'002U);
	for (const Codec codec : kCompressing) {
		EXPECT_LE(frames[0].packed.size(), archive::Compress(codec, text, archive::kDefaultLevel).size());
	}
}

} // namespace

} // namespace tarn::test
