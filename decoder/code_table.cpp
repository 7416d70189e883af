#include "decoder/code_table.h"

#include <algorithm>
#include <limits>

namespace tarn::decoder {

namespace {

constexpr unsigned kSelf = 0;
constexpr unsigned kHere = 1;
constexpr unsigned kFirstNear = 2;
constexpr unsigned kSameUnit = 256;

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

/** Where the next entry of a table goes. */
using Next = decltype(CodeTable::entries)::iterator;

void PutSingles(Next& next) {
	*next++ = {{InstructionType::kRun, 0, 0}, {}};
	for (Byte size = 0; size <= kLargestAdd; ++size) {
		*next++ = {Add(size), {}};
	}
	for (Byte mode = 0; mode < kModes; ++mode) {
		*next++ = {Copy(0, mode), {}};
		for (Byte size = kSmallestCopy; size <= kLargestCopy; ++size) {
			*next++ = {Copy(size, mode), {}};
		}
	}
}

void PutPairs(Next& next) {
	constexpr Byte kLargestCopyAfterAdd = 6;
	for (Byte mode = 0; mode < kModes; ++mode) {
		const Byte largest = mode < kFirstSameMode ? kLargestCopyAfterAdd : kSmallestCopy;
		for (Byte add = 1; add <= kLargestAddInPair; ++add) {
			for (Byte copy = kSmallestCopy; copy <= largest; ++copy) {
				*next++ = {Add(add), Copy(copy, mode)};
			}
		}
	}
	for (Byte mode = 0; mode < kModes; ++mode) {
		*next++ = {Copy(kSmallestCopy, mode), Add(1)};
	}
}

/** Visits the string's six parts: which field of an entry each one holds. */
template<typename Table, typename Visit>
void ForEachField(Table& table, Visit visit) {
	const auto visit_all = [&](const auto& field_of) {
		for (auto& entry : table.entries) {
			visit(field_of(entry));
		}
	};
	visit_all([](auto& entry) -> auto& { return entry.first.type; });
	visit_all([](auto& entry) -> auto& { return entry.second.type; });
	visit_all([](auto& entry) -> auto& { return entry.first.size; });
	visit_all([](auto& entry) -> auto& { return entry.second.size; });
	visit_all([](auto& entry) -> auto& { return entry.first.mode; });
	visit_all([](auto& entry) -> auto& { return entry.second.mode; });
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

CodeTable DefaultCodeTable() {
	CodeTable table;
	auto next = table.entries.begin();
	PutSingles(next);
	PutPairs(next);
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
