#include "publisher/sqlite/rebuilt_table.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace tarn::publisher {

namespace {

RowKey RowIdKey(std::int64_t id) {
	return {SqlValue{SQLITE_INTEGER, id, {}}};
}

/** Bytes of the database file before. */
std::size_t SizeBefore(const DatabasePair& pair) {
	SQLite::Statement size(pair, "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size");
	size.executeStep();
	return static_cast<std::size_t>(size.getColumn(0).getInt64());
}

} // namespace

/** Takes rows that stay with other values, by their place before; their row ids count as the same. */
template<typename Take>
void RebuiltTable::ForEachChanged(const Take& take) {
	for (std::size_t i = 0; i < before_.size(); ++i) {
		const std::size_t at = match_->After(i);
		if (at == kNoRow || before_[i].content == after_[at].content) {
			continue;
		}
		SqlRow before = Before(i);
		SqlRow after = After(at);
		if (shape_.alias) {
			before[*shape_.alias] = after[*shape_.alias];
		}
		take(i, before, after);
	}
}

bool RebuiltTable::Match(std::uint64_t memory) {
	const std::uint64_t rows =
	    CountRows(pair_, DatabasePair::kBefore, shape_.name) + CountRows(pair_, DatabasePair::kAfter, shape_.name);
	if (rows > memory / kMatchBytesPerRow) {
		return false;
	}
	file_bytes_ = SizeBefore(pair_);
	before_ = ReadPrints(pair_, DatabasePair::kBefore, shape_);
	after_ = ReadPrints(pair_, DatabasePair::kAfter, shape_);
	const auto is_positive = [](const RowPrints& prints) { return prints.empty() || prints.front().id > 0; };
	if (!is_positive(before_) || !is_positive(after_)) {
		return false;
	}
	match_.emplace(before_, after_, [this](std::size_t before, std::size_t after) { return Likeness(before, after); });
	UniqueConflicts conflicts(shape_);
	ForEachChanged(
	    [&](std::size_t at, const SqlRow& before, const SqlRow& after) { conflicts.Add(at, before, after); });
	reinserted_ = conflicts.Find();
	for (std::size_t i = 0; i < before_.size(); ++i) {
		if (Stays(i) && NewId(i) != before_[i].id) {
			return true;
		}
	}
	return false;
}

void RebuiltTable::Write(ChangeWriter& writer) {
	SetGuard(writer);
	WriteDeletions(writer);
	WriteUpdates(writer);
	std::size_t first = 0;
	while (!Stays(first) || NewId(first) == before_[first].id) {
		++first;
	}
	WriteNegativeIds(first, writer);
	WriteStrays(first, writer);
	WriteInsertions(writer);
	WriteNewIds(first, writer);
	writer.Flush();
}

std::size_t RebuiltTable::Likeness(std::size_t before, std::size_t after) {
	const SqlRow left = Before(before);
	const SqlRow right = After(after);
	std::size_t same = 0;
	for (std::size_t i = 0; i < left.size(); ++i) {
		if (i != shape_.alias && left[i] == right[i]) {
			same += Literal(left[i]).size();
		}
	}
	return same;
}

/** Something that holds before: a row id that is gone after, or a row that is another one after. */
void RebuiltTable::SetGuard(ChangeWriter& writer) {
	std::size_t j = 0;
	for (std::size_t i = 0; i < before_.size(); ++i) {
		const std::int64_t id = before_[i].id;
		while (j < after_.size() && after_[j].id < id) {
			++j;
		}
		const bool is_gone = j == after_.size() || after_[j].id != id;
		if (!is_gone && before_[i].content == after_[j].content) {
			continue;
		}
		std::string condition = KeyCondition(shape_, RowIdKey(id));
		if (!is_gone) {
			const SqlRow before = Before(i);
			const SqlRow after = After(j);
			const auto [old_value, new_value] = std::mismatch(before.begin(), before.end(), after.begin());
			const auto column = static_cast<std::size_t>(old_value - before.begin());
			condition += " AND " + Distinction(shape_.columns[column], *old_value, *new_value);
		}
		writer.SetGuard(RowExists(shape_, condition));
		return;
	}
}

void RebuiltTable::WriteDeletions(ChangeWriter& writer) const {
	constexpr std::size_t kRange = 3; // fewer are shorter one by one
	for (std::size_t i = 0; i < before_.size(); ++i) {
		if (Stays(i)) {
			continue;
		}
		std::size_t end = i + 1;
		while (end < before_.size() && !Stays(end)) {
			++end;
		}
		if (end - i >= kRange) {
			writer.Write("DELETE FROM " + shape_.name + " WHERE " + shape_.row_id + " BETWEEN " +
			             std::to_string(before_[i].id) + " AND " + std::to_string(before_[end - 1].id));
		} else {
			for (std::size_t at = i; at < end; ++at) {
				writer.Delete(RowIdKey(before_[at].id));
			}
		}
		i = end;
	}
}

void RebuiltTable::WriteUpdates(ChangeWriter& writer) {
	ForEachChanged([&](std::size_t at, const SqlRow& before, const SqlRow& after) {
		if (Stays(at)) {
			writer.Update(RowIdKey(before_[at].id), before, after);
		}
	});
}

void RebuiltTable::WriteInsertions(ChangeWriter& writer) {
	for (std::size_t j = 0; j < after_.size(); ++j) {
		if (match_->Before(j) == kNoRow || !Stays(match_->Before(j))) {
			writer.Insert(RowIdKey(after_[j].id), After(j));
		}
	}
}

void RebuiltTable::WriteStrays(std::size_t first, ChangeWriter& writer) const {
	for (std::size_t i = first; i < before_.size(); ++i) {
		if (Stays(i) && !match_->InOrder(i)) {
			writer.Write("UPDATE " + shape_.name + " SET " + shape_.row_id + "=" + std::to_string(NewId(i)) +
			             " WHERE " + shape_.row_id + "=" + std::to_string(-before_[i].id));
		}
	}
}

std::vector<RebuiltTable::Run> RebuiltTable::RunsFrom(std::size_t first) const {
	std::vector<Run> runs;
	for (std::size_t i = first; i < before_.size(); ++i) {
		if (!Stays(i) || !match_->InOrder(i)) {
			continue;
		}
		if (!runs.empty() && NewId(runs.back().first) - before_[runs.back().first].id == NewId(i) - before_[i].id) {
			runs.back().last = i;
		} else {
			runs.push_back({i, i});
		}
	}
	return runs;
}

void RebuiltTable::WriteNegativeIds(std::size_t first, ChangeWriter& writer) const {
	const std::string& id = shape_.row_id;
	const std::string update = "UPDATE " + shape_.name + " SET " + id + "=-" + id + " WHERE " + id;
	const std::size_t rows = RowsPerStatement();
	for (std::size_t begin = first; begin < before_.size(); begin += rows) {
		std::string statement = update + ">=" + std::to_string(before_[begin].id);
		if (before_.size() - begin > rows) {
			statement += " AND " + id + "<" + std::to_string(before_[begin + rows].id);
		}
		writer.Write(statement);
	}
}

void RebuiltTable::WriteNewIds(std::size_t first, ChangeWriter& writer) const {
	constexpr std::size_t kFewRuns = 4;
	const std::vector<Run> runs = RunsFrom(first);
	if (runs.empty()) {
		return;
	}
	const std::size_t from = match_->After(runs.front().first);
	const std::size_t to = match_->After(runs.back().last);
	const bool is_dense = after_[to].id - after_[from].id == static_cast<std::int64_t>(to - from);
	if (is_dense && runs.size() > kFewRuns) {
		WriteFilling(first, writer);
		return;
	}
	for (const Run& run : runs) {
		writer.Write("UPDATE " + shape_.name + " SET " + shape_.row_id + "=" +
		             std::to_string(NewId(run.first) - before_[run.first].id) + "-" + shape_.row_id + " WHERE " +
		             shape_.row_id + " BETWEEN " + std::to_string(-before_[run.last].id) + " AND " +
		             std::to_string(-before_[run.first].id));
	}
}

void RebuiltTable::WriteFilling(std::size_t first, ChangeWriter& writer) const {
	const std::size_t most = RowsPerStatement();
	Run part = {kNoRow, kNoRow};
	std::size_t rows = 0;
	for (std::size_t i = first; i < before_.size(); ++i) {
		if (!Stays(i) || !match_->InOrder(i)) {
			continue;
		}
		if (rows == most) {
			writer.Write(FillingStatement(part));
			rows = 0;
		}
		part = {rows == 0 ? i : part.first, i};
		++rows;
	}
	writer.Write(FillingStatement(part));
}

std::string RebuiltTable::FillingStatement(const Run& part) const {
	constexpr std::string_view kStatement =
	    "UPDATE #t SET #i=tarn_m.n FROM (WITH RECURSIVE tarn_n(n) AS (SELECT #a UNION ALL SELECT n+1 FROM tarn_n "
	    "WHERE n<#b) SELECT tarn_o.i,tarn_f.n FROM (SELECT #i AS i,row_number() OVER (ORDER BY #i DESC) AS r FROM #t "
	    "WHERE #i BETWEEN #c AND #d) AS tarn_o JOIN (SELECT n,row_number() OVER (ORDER BY n) AS r FROM tarn_n "
	    "WHERE NOT EXISTS(SELECT 1 FROM #t AS tarn_t WHERE tarn_t.#i=tarn_n.n)) AS tarn_f "
	    "ON tarn_f.r=tarn_o.r) AS tarn_m WHERE #t.#i=tarn_m.i";
	const std::map<char, std::string> parts = {{'t', shape_.name}, {'i', shape_.row_id},
	    {'a', std::to_string(NewId(part.first))}, {'b', std::to_string(NewId(part.last))},
	    {'c', std::to_string(-before_[part.last].id)}, {'d', std::to_string(-before_[part.first].id)}};
	std::string statement;
	for (std::size_t i = 0; i < kStatement.size(); ++i) {
		if (kStatement[i] == '#') {
			statement += parts.at(kStatement[++i]);
		} else {
			statement += kStatement[i];
		}
	}
	return statement;
}

std::size_t RebuiltTable::RowsPerStatement() const {
	constexpr std::size_t kBytes = std::size_t{16} << 20U; // of pages whose originals devices keep in memory
	constexpr std::size_t kLeast = 1000;
	constexpr std::size_t kMost = 100'000; // for whose sorting devices have memory
	const std::size_t bytes_per_row = file_bytes_ / std::max<std::size_t>(before_.size(), 1) + 1;
	return std::clamp(kBytes / bytes_per_row, kLeast, kMost);
}

} // namespace tarn::publisher
