#include "decoder/address_cache.h"

#include <algorithm>
#include <limits>

namespace tarn::decoder {

namespace {

constexpr unsigned kSelf = 0;
constexpr unsigned kHere = 1;
constexpr unsigned kFirstNear = 2;
constexpr unsigned kSameUnit = 256;

} // namespace

AddressCache::AddressCache(CacheSizes sizes)
    : sizes_(sizes), near_(sizes.near), same_(static_cast<std::size_t>(sizes.same) * kSameUnit) {}

void AddressCache::Reset() {
	std::fill(near_.begin(), near_.end(), 0);
	next_near_ = 0;
	++window_;
}

std::uint64_t AddressCache::Read(unsigned mode, std::uint64_t here, SectionReader& addresses) {
	const std::uint64_t address = Decode(mode, here, addresses);
	if (address >= here) {
		addresses.Fail("a COPY from " + std::to_string(address) + " while only " + std::to_string(here) +
		               " bytes are there to copy from");
	}
	Remember(address);
	return address;
}

std::uint64_t AddressCache::Decode(unsigned mode, std::uint64_t here, SectionReader& addresses) const {
	if (mode >= kFirstNear + sizes_.near) {
		const unsigned unit = mode - kFirstNear - sizes_.near;
		const SameSlot& slot = same_[static_cast<std::size_t>(unit) * kSameUnit + addresses.ReadByte()];
		return slot.window == window_ ? slot.address : 0;
	}
	const std::uint64_t number = addresses.ReadInteger();
	if (mode == kSelf) {
		return number;
	}
	if (mode == kHere) {
		if (number > here) {
			addresses.Fail(
			    "a COPY from " + std::to_string(number) + " bytes back while there are only " + std::to_string(here));
		}
		return here - number;
	}
	const std::uint64_t base = near_[mode - kFirstNear];
	if (number > std::numeric_limits<std::uint64_t>::max() - base) {
		addresses.Fail("a COPY's address does not fit into 64 bits");
	}
	return base + number;
}

void AddressCache::Remember(std::uint64_t address) {
	if (!near_.empty()) {
		near_[next_near_] = address;
		next_near_ = next_near_ + 1 == near_.size() ? 0 : next_near_ + 1;
	}
	if (!same_.empty()) {
		same_[address % same_.size()] = {address, window_};
	}
}

} // namespace tarn::decoder
