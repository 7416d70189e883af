#include "archive/packer.h"

#include "archive/compressor.h"
#include "base/parallel.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace tarn::archive {

namespace {

constexpr std::size_t kMinFrame = std::size_t{256} << 10U; // before a frame ends with its group
constexpr std::size_t kFramesAtOnce = 16;

/** A way to compress, and what it must save to be worth a device's time. */
struct Candidate {
	Codec codec;
	/**
	 * In thousandths of the unpacked bytes. A device unpacks about 800 MB in a second with zstd, 200 with brotli, 45
	 * with lzma and 25 with bzip2, and a second of a processor of its own is taken to be worth 5 MB.
	 */
	unsigned handicap;
	int min_level; // for large payloads
};
constexpr std::array<Candidate, 4> kCandidates = {{{Codec::kZstd, 0, kMinLevel}, {Codec::kBrotli, 25, kDefaultLevel},
    {Codec::kLzma, 110, kMinMixedLevel}, {Codec::kBzip2, 200, kMinMixedLevel}}};

PackedFrame MakeFrame(Codec codec, std::string_view bytes, std::string packed) {
	PackedFrame result;
	const bool is_smaller = packed.size() < bytes.size();
	result.packed = is_smaller ? std::move(packed) : std::string(bytes);
	result.frame.codec = is_smaller ? codec : Codec::kStored;
	result.frame.packed_size = static_cast<std::uint32_t>(result.packed.size());
	result.frame.unpacked_size = static_cast<std::uint32_t>(bytes.size());
	return result;
}

PackedFrame PackSmallest(std::string_view bytes, int level) {
	std::array<std::string, kCandidates.size()> packed;
	const std::size_t count = level < kMinThoroughLevel ? 1 : kCandidates.size();
	DoInParallel(count, [&](std::size_t at) { packed.at(at) = Compress(kCandidates.at(at).codec, bytes, level); });
	std::size_t best = 0;
	for (std::size_t at = 1; at < count; ++at) {
		best = packed.at(at).size() < packed.at(best).size() ? at : best;
	}
	return MakeFrame(kCandidates.at(best).codec, bytes, std::move(packed.at(best)));
}

/** Joins the smallest neighbours until few groups are left, because each try takes time. */
void JoinSmallest(std::vector<std::string>& groups) {
	constexpr std::size_t kMaxGroups = 6;
	while (groups.size() > kMaxGroups) {
		std::size_t best = 0;
		for (std::size_t at = 1; at + 1 < groups.size(); ++at) {
			const bool is_smaller =
			    groups[at].size() + groups[at + 1].size() < groups[best].size() + groups[best + 1].size();
			best = is_smaller ? at : best;
		}
		groups[best] += groups[best + 1];
		groups.erase(groups.begin() + static_cast<std::ptrdiff_t>(best) + 1);
	}
}

std::vector<std::string> CutToFrames(const std::vector<std::string>& groups) {
	std::vector<std::string> pieces;
	for (const std::string& group : groups) {
		for (std::size_t begin = 0; begin < group.size(); begin += kMaxFrameSize) {
			pieces.push_back(group.substr(begin, kMaxFrameSize));
		}
	}
	return pieces;
}

/** Whether a frame for both may be smaller than two, which only a try shows. */
bool MayJoin(const std::string& left, const std::string& right) {
	constexpr std::size_t kWorthTrying = std::size_t{32} << 10U;
	return !left.empty() && std::min(left.size(), right.size()) < kWorthTrying &&
	       left.size() + right.size() <= kMaxFrameSize;
}

struct Choice {
	Codec codec = Codec::kZstd;
	std::uint64_t saved = 0; // of a frame's middle, besides what the time of devices is worth
};

/** The codec for a frame of a large payload, by its middle. */
Choice ChooseCodec(std::string_view bytes, int level) {
	constexpr std::size_t kSampleSize = std::size_t{512} << 10U;
	const std::size_t begin = bytes.size() > kSampleSize ? (bytes.size() - kSampleSize) / 2 : 0;
	const std::string_view sample = bytes.substr(begin, kSampleSize);
	constexpr int kQuickLevel = 1;
	constexpr unsigned kThousand = 1000;
	Choice best;
	if (level < kMinMixedLevel || Compress(best.codec, sample, kQuickLevel).size() > sample.size() / kThousand * 980) {
		return best; // Nothing can be saved by others.
	}
	const std::uint64_t by_zstd = Compress(best.codec, sample, level).size();
	for (const Candidate& candidate : kCandidates) {
		if (candidate.codec != Codec::kZstd && level >= candidate.min_level) {
			const std::uint64_t cost =
			    Compress(candidate.codec, sample, level).size() + sample.size() * candidate.handicap / kThousand;
			best = cost + best.saved < by_zstd ? Choice{candidate.codec, by_zstd - cost} : best;
		}
	}
	return best;
}

/**
 * Leaves the slow codecs to the frames that they make smallest, a quarter of all: so a device never needs more than
 * about twice as long for a package of many frames as zstd would take.
 */
void LimitSlowFrames(std::vector<Choice>& choices) {
	constexpr std::size_t kShare = 4;
	std::vector<Choice*> order;
	std::transform(choices.begin(), choices.end(), std::back_inserter(order), [](Choice& choice) { return &choice; });
	std::stable_sort(
	    order.begin(), order.end(), [](const Choice* left, const Choice* right) { return left->saved > right->saved; });
	for (std::size_t at = (choices.size() + kShare - 1) / kShare; at < order.size(); ++at) {
		*order[at] = {};
	}
}

} // namespace

std::vector<PackedFrame> PackGroups(std::vector<std::string> groups, int level) {
	JoinSmallest(groups);
	std::vector<PackedFrame> frames;
	std::string last;
	for (std::string& group : CutToFrames(groups)) {
		PackedFrame frame = PackSmallest(group, level);
		if (MayJoin(last, group)) {
			PackedFrame joined = PackSmallest(last + group, level);
			if (joined.packed.size() <= frames.back().packed.size() + frame.packed.size() + kFrameEntrySize) {
				frames.back() = std::move(joined);
				last += group;
				continue;
			}
		}
		frames.push_back(std::move(frame));
		last = std::move(group);
	}
	return frames;
}

void Packer::Write(std::string_view bytes) {
	size_ += bytes.size();
	if (is_small_ && size_ > max_small_) {
		LeaveSmall();
	}
	if (is_small_) {
		groups_.back() += bytes;
		return;
	}
	Fill(bytes);
}

void Packer::Fill(std::string_view bytes) {
	while (!bytes.empty()) {
		const std::string_view part = bytes.substr(0, kMaxFrameSize - frame_.size());
		frame_ += part;
		bytes.remove_prefix(part.size());
		if (frame_.size() == kMaxFrameSize) {
			CutFrame();
		}
	}
}

void Packer::BeginGroup() {
	if (is_small_) {
		groups_.emplace_back();
	} else if (frame_.size() >= kMinFrame) {
		CutFrame();
	}
}

void Packer::LeaveSmall() {
	is_small_ = false;
	for (const std::string& group : std::exchange(groups_, {})) {
		BeginGroup();
		Fill(group);
	}
}

void Packer::CutFrame() {
	frames_.push_back(std::exchange(frame_, {}));
	if (frames_.size() == kFramesAtOnce) {
		PackFrames();
	}
}

void Packer::PackFrames() {
	std::vector<Choice> choices(frames_.size());
	DoInParallel(frames_.size(), [&](std::size_t at) { choices[at] = ChooseCodec(frames_[at], level_); });
	if (level_ < kMaxLevel) {
		LimitSlowFrames(choices);
	}
	std::vector<PackedFrame> packed(frames_.size());
	DoInParallel(frames_.size(), [&](std::size_t at) {
		const Codec codec = choices[at].codec;
		packed[at] = MakeFrame(codec, frames_[at], Compress(codec, frames_[at], level_));
	});
	frames_.clear();
	std::for_each(packed.begin(), packed.end(), sink_);
}

void Packer::Finish() {
	if (is_small_) {
		const std::vector<PackedFrame> packed = PackGroups(std::move(groups_), level_);
		std::for_each(packed.begin(), packed.end(), sink_);
		return;
	}
	if (!frame_.empty()) {
		CutFrame();
	}
	PackFrames();
}

} // namespace tarn::archive
