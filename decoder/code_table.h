/** @file The codes of a patch's instructions, and the addresses of its COPY instructions. */
#ifndef DECODER_CODE_TABLE_H
#define DECODER_CODE_TABLE_H

#include "decoder/bytes.h"
#include "decoder/readers.h"

#include <array>
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

enum class InstructionType : Byte { kNoop = 0, kAdd = 1, kRun = 2, kCopy = 3 };

struct Instruction {
	InstructionType type = InstructionType::kNoop;
	Byte size = 0; ///< 0: the size follows the code
	Byte mode = 0;
};

/** One byte of the instruction section stands for up to two instructions. */
struct CodeTableEntry {
	Instruction first;
	Instruction second;
};

struct CodeTable {
	static constexpr std::size_t kEntries = 256;
	static constexpr std::size_t kStringSize = 6 * kEntries;

	std::array<CodeTableEntry, kEntries> entries;
	CacheSizes caches;
};

/** The table of every patch that does not bring its own. */
CodeTable DefaultCodeTable();

/** A table in the order in which a patch encodes it: all first types, second types, first sizes, and so on. */
std::vector<Byte> CodeTableString(const CodeTable& table);

/** The inverse. Throws DecodeError, whose text begins with `where`, when no instruction can be what the string says. */
[[nodiscard]] CodeTable CodeTableFromString(
    const std::vector<Byte>& string, CacheSizes caches, const std::string& where);

} // namespace tarn::decoder

#endif
