/** @file Cutting a tar into frames, and choosing how each is compressed. */
#ifndef ARCHIVE_PACKER_H
#define ARCHIVE_PACKER_H

#include "archive/head.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

constexpr int kMinLevel = 1;
constexpr int kMaxLevel = 19;
/** From here on a small payload is compressed in every way that there is. */
constexpr int kMinThoroughLevel = 10;
/** From here on the frames of larger payloads may be compressed by others than zstd. */
constexpr int kMinMixedLevel = 16;
constexpr int kDefaultLevel = 18;

struct PackedFrame {
	Frame frame; // without digest
	std::string packed;
};

/**
 * Takes a tar and makes frames of it, on all processors. The same bytes, groups and level give the same frames.
 *
 * A small payload gets frames for each group, or one for several when that is smaller, and in each frame the codec that
 * makes it smallest. In a larger payload a part of each frame decides, and the time of the device counts: a codec that
 * is slower to decompress must be smaller by what its time is worth, and below kMaxLevel it gets a quarter of the
 * frames at most.
 */
class Packer {
public:
	using FrameSink = std::function<void(const PackedFrame&)>;

	/** The level is from kMinLevel, fast, to kMaxLevel, small; max_small is how large a small payload may be. */
	Packer(int level, std::uint64_t max_small, FrameSink sink)
	    : level_(level), max_small_(max_small), sink_(std::move(sink)) {}

	void Write(std::string_view bytes);
	/** What comes now is of another kind than what came before. */
	void BeginGroup();
	void Finish();

private:
	void LeaveSmall();
	void Fill(std::string_view bytes);
	void CutFrame();
	void PackFrames();

	int level_;
	std::uint64_t max_small_;
	FrameSink sink_;
	bool is_small_ = true;
	std::uint64_t size_ = 0;
	std::vector<std::string> groups_{1}; // of a payload that is small so far
	std::string frame_;                  // else the frame that is being filled,
	std::vector<std::string> frames_;    // and those that are to be compressed together
};

/** A small payload's groups as frames. */
[[nodiscard]] std::vector<PackedFrame> PackGroups(std::vector<std::string> groups, int level);

} // namespace tarn::archive

#endif
