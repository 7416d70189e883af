/** @file The codes of a patch's instructions. */
#ifndef DECODER_CODE_TABLE_H
#define DECODER_CODE_TABLE_H

#include "decoder/address_cache.h"
#include "decoder/bytes.h"

#include <array>
#include <vector>

namespace tarn::decoder {

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
CodeTable CodeTableFromString(const std::vector<Byte>& string, CacheSizes caches, const std::string& where);

} // namespace tarn::decoder

#endif
