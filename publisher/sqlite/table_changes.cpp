#include "publisher/sqlite/table_changes.h"

#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace tarn::publisher {

namespace {

template<typename Number>
void AppendBytes(std::string& text, const Number& number) {
	text.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

/** SQL holds 1 and 1.0 for equal. */
SqlValue Comparable(const SqlValue& value) {
	constexpr double kExact = 9007199254740992; // 2^53
	double real = 0;
	std::memcpy(&real, &value.integer, sizeof(real));
	const bool is_integral = value.type == SQLITE_FLOAT && std::abs(real) <= kExact && std::trunc(real) == real;
	return is_integral ? SqlValue{SQLITE_INTEGER, static_cast<std::int64_t>(real), {}} : value;
}

void AppendValue(std::string& text, const SqlValue& value) {
	AppendBytes(text, value.type);
	AppendBytes(text, value.integer);
	AppendBytes(text, value.bytes.size());
	text += value.bytes;
}

std::uint64_t HashOf(const std::string& text) {
	return XXH3_64bits(text.data(), text.size());
}

bool Differ(const SqlRow& before, const SqlRow& after, const std::vector<std::size_t>& columns) {
	return std::any_of(columns.begin(), columns.end(), [&](std::size_t at) { return before[at] != after[at]; });
}

} // namespace

std::uint64_t KeyHash(const SqlRow& row, const std::vector<std::size_t>& columns) {
	std::string text;
	for (const std::size_t at : columns) {
		AppendValue(text, Comparable(row[at]));
	}
	return HashOf(text);
}

std::uint64_t ContentHash(const SqlRow& row) {
	std::string text;
	std::for_each(row.begin(), row.end(), [&text](const SqlValue& value) { AppendValue(text, value); });
	return HashOf(text);
}

void UniqueConflicts::Add(std::uint64_t number, const SqlRow& before, const SqlRow& after) {
	for (std::size_t i = 0; i < shape_.uniques.size(); ++i) {
		const UniqueColumns& unique = shape_.uniques[i];
		if (!Differ(before, after, unique.columns)) {
			continue;
		}
		if (!unique.by_value) {
			conflicts_.insert(number);
			continue;
		}
		taken_.insert(KeyHash(before, unique.columns) + i);
		claims_.push_back({number, KeyHash(after, unique.columns) + i});
	}
}

std::unordered_set<std::uint64_t> UniqueConflicts::Find() const {
	std::unordered_set<std::uint64_t> conflicts = conflicts_;
	for (const Claim& claim : claims_) {
		if (taken_.count(claim.key) > 0) {
			conflicts.insert(claim.number);
		}
	}
	return conflicts;
}

void WriteChangesInPlace(const DatabasePair& pair, const TableShape& shape, ChangeWriter& writer) {
	const TablePair table(pair, shape);
	std::unordered_set<std::uint64_t> moved;
	if (!shape.uniques.empty()) {
		UniqueConflicts conflicts(shape);
		table.ForEachChanged([&](std::uint64_t number, const RowKey& /*key*/, const SqlRow& before,
		                         const SqlRow& after) { conflicts.Add(number, before, after); });
		moved = conflicts.Find();
	}
	table.ForEachGone([&](const RowKey& key) { writer.Delete(key); });
	if (!moved.empty()) {
		table.ForEachChanged(
		    [&](std::uint64_t number, const RowKey& key, const SqlRow& /*before*/, const SqlRow& /*after*/) {
			    if (moved.count(number) > 0) {
				    writer.Delete(key);
			    }
		    });
	}
	table.ForEachChanged([&](std::uint64_t number, const RowKey& key, const SqlRow& before, const SqlRow& after) {
		if (moved.count(number) == 0) {
			writer.Update(key, before, after);
		}
	});
	table.ForEachNew([&](const RowKey& key, const SqlRow& row) { writer.Insert(key, row); });
	if (!moved.empty()) {
		table.ForEachChanged(
		    [&](std::uint64_t number, const RowKey& key, const SqlRow& /*before*/, const SqlRow& after) {
			    if (moved.count(number) > 0) {
				    writer.Insert(key, after);
			    }
		    });
	}
	writer.Flush();
}

} // namespace tarn::publisher
