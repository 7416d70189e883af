/** @file The addresses of COPY instructions. */
#ifndef DECODER_ADDRESS_CACHE_H
#define DECODER_ADDRESS_CACHE_H

#include "decoder/section_reader.h"

#include <vector>

namespace tarn::decoder {

/** Sizes of the two caches, as a custom code table may choose them. */
struct CacheSizes {
	unsigned near = 4;
	unsigned same = 3; ///< in units of 256 addresses

	/** How many address modes these sizes make: two without a cache, and one for each slot or unit. */
	unsigned Modes() const { return 2 + near + same; }
};

/** Decodes the addresses of COPY instructions, which are written relative to those before them. */
class AddressCache {
public:
	explicit AddressCache(CacheSizes sizes);

	/** Forgets all addresses, as at the beginning of each window. */
	void Reset();
	/** The next address, which is always below `here`. The mode is below the sizes' Modes(). */
	std::uint64_t Read(unsigned mode, std::uint64_t here, SectionReader& addresses);

private:
	struct SameSlot {
		std::uint64_t address = 0;
		std::uint64_t window = 0;
	};

	std::uint64_t Decode(unsigned mode, std::uint64_t here, SectionReader& addresses) const;
	void Remember(std::uint64_t address);

	CacheSizes sizes_;
	std::vector<std::uint64_t> near_;
	std::size_t next_near_ = 0;
	// Slots of earlier windows count as empty. Clearing them would let a tiny window cost half a megabyte's writing.
	std::vector<SameSlot> same_;
	std::uint64_t window_ = 0;
};

} // namespace tarn::decoder

#endif
