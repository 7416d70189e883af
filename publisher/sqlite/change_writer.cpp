#include "publisher/sqlite/change_writer.h"

#include <algorithm>
#include <array>

namespace tarn::publisher {

namespace {

std::string Literals(const SqlRow& row) {
	std::vector<std::string> literals;
	std::transform(row.begin(), row.end(), std::back_inserter(literals), Literal);
	return Joined(literals);
}

bool Differ(const SqlRow& before, const SqlRow& after, const std::vector<std::size_t>& columns) {
	return std::any_of(columns.begin(), columns.end(), [&](std::size_t at) { return before[at] != after[at]; });
}

} // namespace

std::string KeyCondition(const TableShape& shape, const RowKey& key) {
	std::vector<std::string> parts = shape.KeyNames();
	for (std::size_t i = 0; i < parts.size(); ++i) {
		parts[i] += "=" + Literal(key[i]);
	}
	return Joined(parts, " AND ");
}

std::string Distinction(const std::string& column, const SqlValue& before, const SqlValue& after) {
	if (before.type != after.type) {
		constexpr std::array kTypes = {"integer", "real", "text", "blob", "null"}; // in the order of SQLite's numbers
		return "typeof(" + column + ")='" + kTypes.at(static_cast<std::size_t>(before.type) - 1) + "'";
	}
	const std::string blob = "CAST(" + column + " AS BLOB)";
	if (before.bytes.size() != after.bytes.size()) {
		return "length(" + blob + ")=" + std::to_string(before.bytes.size());
	}
	if (before.bytes.empty()) {
		return column + " IS " + Literal(before);
	}
	const auto at = std::mismatch(before.bytes.begin(), before.bytes.end(), after.bytes.begin()).first;
	const SqlValue byte = {SQLITE_BLOB, 0, std::string(1, *at)};
	return "substr(" + blob + "," + std::to_string(at - before.bytes.begin() + 1) + ",1)=" + Literal(byte);
}

std::string RowExists(const TableShape& shape, const std::string& condition) {
	return "EXISTS(SELECT 1 FROM " + shape.name + " WHERE " + condition + ")";
}

void ChangeWriter::Delete(const RowKey& key) {
	Begin(Kind::kDelete);
	items_.push_back(key.size() == 1 ? Literal(key.front()) : "(" + Literals(key) + ")");
	pending_ += items_.back().size();
}

void ChangeWriter::Update(const RowKey& key, const SqlRow& before, const SqlRow& after) {
	Begin(Kind::kUpdate);
	std::string set;
	for (std::size_t i = 0; i < after.size(); ++i) {
		if (before[i] == after[i]) {
			continue;
		}
		const std::string& column = shape_.columns[i];
		const std::string value = NewValue(column, before[i], after[i]);
		set.append(set.empty() ? "" : ",").append(column).append("=").append(value);
		if (guard_.empty() && value != Literal(after[i])) {
			guard_ = RowExists(shape_, KeyCondition(shape_, key) + " AND " + Distinction(column, before[i], after[i]));
		}
	}
	std::vector<std::string>& keys = keys_by_set_[set];
	if (keys.empty()) {
		sets_.push_back(set);
	}
	keys.push_back(key.size() == 1 ? Literal(key.front()) : "(" + Literals(key) + ")");
	pending_ += set.size() + keys.back().size();
}

void ChangeWriter::Insert(const RowKey& key, const SqlRow& row) {
	Begin(Kind::kInsert);
	const bool says_key = shape_.row_id.empty() || shape_.alias;
	items_.push_back((says_key ? "(" : "(" + Literals(key) + ",") + Literals(row) + ")");
	pending_ += items_.back().size();
}

void ChangeWriter::Write(const std::string& statement) {
	Flush();
	script_ << statement << ";\n";
}

/** Updates wait for others that set the same; only their number is limited. */
void ChangeWriter::Begin(Kind kind) {
	constexpr std::size_t kLine = std::size_t{32} << 10U;
	constexpr std::size_t kUpdates = std::size_t{8} << 20U;
	if (kind != kind_ || pending_ > (kind == Kind::kUpdate ? kUpdates : kLine)) {
		Flush();
		kind_ = kind;
	}
}

void ChangeWriter::Flush() {
	if (kind_ == Kind::kDelete && !items_.empty()) {
		script_ << "DELETE FROM " << shape_.name << " WHERE " << Where(items_) << ";\n";
	} else if (kind_ == Kind::kInsert && !items_.empty()) {
		std::vector<std::string> columns = shape_.columns;
		if (!shape_.row_id.empty() && !shape_.alias) {
			columns.insert(columns.begin(), shape_.row_id);
		}
		script_ << "INSERT INTO " << shape_.name << "(" << Joined(columns) << ") VALUES" << Joined(items_) << ";\n";
	} else if (kind_ == Kind::kUpdate) {
		FlushUpdates();
	}
	items_.clear();
	pending_ = 0;
	kind_ = Kind::kNone;
}

void ChangeWriter::FlushUpdates() {
	constexpr std::size_t kKeys = 2000; // on one line
	for (const std::string& set : sets_) {
		const std::vector<std::string>& keys = keys_by_set_[set];
		for (std::size_t from = 0; from < keys.size(); from += kKeys) {
			const auto begin = keys.begin() + static_cast<std::ptrdiff_t>(from);
			const auto end = keys.begin() + static_cast<std::ptrdiff_t>(std::min(keys.size(), from + kKeys));
			script_ << "UPDATE " << shape_.name << " SET " << set << " WHERE " << Where({begin, end}) << ";\n";
		}
	}
	sets_.clear();
	keys_by_set_.clear();
}

std::string ChangeWriter::Where(const std::vector<std::string>& keys) const {
	const std::vector<std::string> names = shape_.KeyNames();
	if (names.size() == 1) {
		return names.front() + (keys.size() == 1 ? "=" + keys.front() : " IN (" + Joined(keys) + ")");
	}
	return "(" + Joined(names) + ") IN (VALUES" + Joined(keys) + ")";
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
	std::unordered_set<std::uint64_t> moved;
	if (!shape.uniques.empty()) {
		UniqueConflicts conflicts(shape);
		ForEachChanged(
		    pair, shape, [&](std::uint64_t number, const RowKey& /*key*/, const SqlRow& before, const SqlRow& after) {
			    conflicts.Add(number, before, after);
		    });
		moved = conflicts.Find();
	}
	const auto for_each_moved = [&](const auto& take) {
		if (moved.empty()) {
			return;
		}
		ForEachChanged(
		    pair, shape, [&](std::uint64_t number, const RowKey& key, const SqlRow& /*before*/, const SqlRow& after) {
			    if (moved.count(number) > 0) {
				    take(key, after);
			    }
		    });
	};
	ForEachOnlyIn(pair, DatabasePair::kBefore, shape, {}, // a deleted row may be large, and only its key is needed
	    [&](const RowKey& key, const SqlRow& /*row*/) { writer.Delete(key); });
	for_each_moved([&](const RowKey& key, const SqlRow& /*after*/) { writer.Delete(key); });
	ForEachChanged(
	    pair, shape, [&](std::uint64_t number, const RowKey& key, const SqlRow& before, const SqlRow& after) {
		    if (moved.count(number) == 0) {
			    writer.Update(key, before, after);
		    }
	    });
	const auto insert = [&](const RowKey& key, const SqlRow& row) { writer.Insert(key, row); };
	ForEachOnlyIn(pair, DatabasePair::kAfter, shape, shape.columns, insert);
	for_each_moved(insert);
	writer.Flush();
}

} // namespace tarn::publisher
