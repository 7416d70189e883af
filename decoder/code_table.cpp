#include "decoder/code_table.h"

#include "decoder/decode_error.h"

namespace tarn::decoder {

namespace {

constexpr Byte kLargestAdd = 17;
constexpr Byte kSmallestCopy = 4;
constexpr Byte kLargestCopy = 18;
constexpr Byte kLargestAddInPair = 4;
constexpr Byte kModes = 9;
constexpr Byte kFirstSameMode = 6;

constexpr Instruction Add(Byte size) {
	return {InstructionType::kAdd, size, 0};
}

constexpr Instruction Copy(Byte size, Byte mode) {
	return {InstructionType::kCopy, size, mode};
}

/** Fills a table from its beginning. */
class TableFiller {
public:
	explicit TableFiller(CodeTable& table) : next_(table.entries.begin()) {}
	void Put(Instruction first, Instruction second = {}) { *next_++ = {first, second}; }

private:
	decltype(CodeTable::entries)::iterator next_;
};

void PutSingles(TableFiller& filler) {
	filler.Put({InstructionType::kRun, 0, 0});
	for (Byte size = 0; size <= kLargestAdd; ++size) {
		filler.Put(Add(size));
	}
	for (Byte mode = 0; mode < kModes; ++mode) {
		filler.Put(Copy(0, mode));
		for (Byte size = kSmallestCopy; size <= kLargestCopy; ++size) {
			filler.Put(Copy(size, mode));
		}
	}
}

void PutPairs(TableFiller& filler) {
	constexpr Byte kLargestCopyAfterAdd = 6;
	for (Byte mode = 0; mode < kModes; ++mode) {
		const Byte largest = mode < kFirstSameMode ? kLargestCopyAfterAdd : kSmallestCopy;
		for (Byte add = 1; add <= kLargestAddInPair; ++add) {
			for (Byte copy = kSmallestCopy; copy <= largest; ++copy) {
				filler.Put(Add(add), Copy(copy, mode));
			}
		}
	}
	for (Byte mode = 0; mode < kModes; ++mode) {
		filler.Put(Copy(kSmallestCopy, mode), Add(1));
	}
}

/** Visits the string's six parts: which field of an entry each one holds. */
template<typename Table, typename Visit>
void ForEachField(Table& table, Visit visit) {
	for (auto& entry : table.entries) {
		visit(entry.first.type);
	}
	for (auto& entry : table.entries) {
		visit(entry.second.type);
	}
	for (auto& entry : table.entries) {
		visit(entry.first.size);
	}
	for (auto& entry : table.entries) {
		visit(entry.second.size);
	}
	for (auto& entry : table.entries) {
		visit(entry.first.mode);
	}
	for (auto& entry : table.entries) {
		visit(entry.second.mode);
	}
}

/** Takes one byte of the string after the other for the fields of a table. */
class FieldReader {
public:
	FieldReader(const std::vector<Byte>& string, const std::string& where) : string_(string), where_(where) {}

	void operator()(Byte& field) { field = string_[next_++]; }
	void operator()(InstructionType& field) {
		const Byte value = string_[next_++];
		if (value > static_cast<Byte>(InstructionType::kCopy)) {
			throw DecodeError(where_ + ": its code table has an instruction of type " + std::to_string(value) + ".");
		}
		field = static_cast<InstructionType>(value);
	}

private:
	const std::vector<Byte>& string_;
	const std::string& where_;
	std::size_t next_ = 0;
};

void CheckMode(const Instruction& instruction, CacheSizes caches, const std::string& where) {
	if (instruction.type == InstructionType::kCopy && instruction.mode >= caches.Modes()) {
		throw DecodeError(where + ": its code table has address mode " + std::to_string(instruction.mode) +
		                  " where the caches make " + std::to_string(caches.Modes()) + " modes.");
	}
}

} // namespace

CodeTable DefaultCodeTable() {
	CodeTable table;
	TableFiller filler(table);
	PutSingles(filler);
	PutPairs(filler);
	return table;
}

std::vector<Byte> CodeTableString(const CodeTable& table) {
	std::vector<Byte> string;
	string.reserve(CodeTable::kStringSize);
	ForEachField(table, [&](auto field) { string.push_back(static_cast<Byte>(field)); });
	return string;
}

CodeTable CodeTableFromString(const std::vector<Byte>& string, CacheSizes caches, const std::string& where) {
	if (string.size() != CodeTable::kStringSize) {
		throw DecodeError(where + ": its code table has " + std::to_string(string.size()) + " bytes instead of " +
		                  std::to_string(CodeTable::kStringSize) + ".");
	}
	CodeTable table;
	table.caches = caches;
	ForEachField(table, FieldReader(string, where));
	for (const CodeTableEntry& entry : table.entries) {
		CheckMode(entry.first, caches, where);
		CheckMode(entry.second, caches, where);
	}
	return table;
}

} // namespace tarn::decoder
