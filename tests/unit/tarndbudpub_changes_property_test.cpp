// Random pairs of databases: what is counted of each table is what a naive comparison of all rows in memory counts.
#include "diff_fixture.h"
#include "publisher/sqlite/database_changes.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <array>
#include <cstdlib>
#include <random>
#include <set>

namespace tarn::test {

namespace {

struct RandomTable {
	const char* name;
	const char* columns;
	const char* key; // an expression that is the same for rows that are one; empty without a key
};

constexpr std::array<RandomTable, 7> kTables = {{{"plain", "(a, b TEXT COLLATE NOCASE, c REAL)", ""},
    {"number", "(a INTEGER PRIMARY KEY, b, c)", "quote(a)"}, {"named", "(b, a TEXT PRIMARY KEY, c)", "quote(a)"},
    {"folded", "(a TEXT COLLATE NOCASE, b, c, PRIMARY KEY(a)) WITHOUT ROWID", "lower(quote(a))"},
    {"pairs", "(a INT, b TEXT, c, PRIMARY KEY(b, a)) WITHOUT ROWID", "quote(b) || ',' || quote(a)"},
    {"made", "(a, b PRIMARY KEY DESC, c, d AS (a || b), e AS (length(b)) STORED)",
        "CASE WHEN typeof(b) = 'real' AND b = CAST(b AS INTEGER) THEN CAST(b AS INTEGER) ELSE quote(b) END"},
    {"hidden", "(rowid, _rowid_, oid, a, b, c)", ""}}};

/** The same for the same seed. */
class RandomPair {
public:
	RandomPair(const std::string& before, const std::string& after, unsigned seed) : random_(seed) {
		std::string sql = "BEGIN;";
		for (const RandomTable& table : kTables) {
			sql += std::string("CREATE TABLE ") + table.name + table.columns + ";";
			for (int i = Below(80); i > 0; --i) {
				sql += Insertion(table);
			}
		}
		ExecuteSql(before, sql + "COMMIT;");
		fs::copy_file(before, after);
		sql = "BEGIN;";
		for (int i = Below(40); i > 0; --i) {
			sql += Change(kTables.at(static_cast<std::size_t>(Below(kTables.size()))));
		}
		ExecuteSql(after, sql + "COMMIT;" + (Below(3) == 0 ? "VACUUM;" : ""));
	}

private:
	int Below(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }

	std::string Value() {
		static const std::vector<std::string> kValues = {"NULL", "9223372036854775807", "0.1 + 0.2", "9e999", "1",
		    "1.0", "'1'", "x'31'", "''", "x''", "'a' || char(0) || 'b'", "'it''s' || char(10)", "CAST(x'fffe' AS TEXT)",
		    "'Größe'", "'Text'", "'text'", "'TEXT '", "hex(zeroblob(3000))"};
		const int choice = Below(30);
		return choice < static_cast<int>(kValues.size()) ? kValues[static_cast<std::size_t>(choice)]
		                                                 : std::to_string(Below(50));
	}
	std::string Key(const RandomTable& table) {
		const std::string name = table.name;
		return name == "number" ? std::to_string(Below(100)) : "coalesce(" + Value() + ",'none')";
	}
	std::string Insertion(const RandomTable& table) {
		const bool is_made = std::string(table.name) == "made";
		return std::string("INSERT OR IGNORE INTO ") + table.name + "(a,b,c) VALUES(" +
		       (is_made ? Value() : Key(table)) + "," + Key(table) + "," + Value() + ");";
	}
	std::string Change(const RandomTable& table) {
		const std::string name = table.name;
		const std::string where = " WHERE length(coalesce(a,'') || coalesce(b,'')) % 7 = " + std::to_string(Below(7));
		switch (Below(5)) {
		case 0:
			return "DELETE FROM " + name + where + ";";
		case 1:
			return "UPDATE OR IGNORE " + name + " SET c = " + Value() + where + ";";
		case 2:
			return "UPDATE OR IGNORE " + name + " SET a = upper(a)" + where + " AND typeof(a) = 'text';";
		case 3: // made again in another order
			return "CREATE TEMP TABLE k AS SELECT a, b, c FROM " + name + ";DELETE FROM " + name + ";INSERT INTO " +
			       name + "(a,b,c) SELECT a, b, c FROM k ORDER BY c, b;DROP TABLE k;";
		default:
			return Insertion(table) + Insertion(table);
		}
	}

	std::mt19937 random_;
};

/** All rows as texts that are the same for the same types and values, by key where there is one. */
std::multimap<std::string, std::string> RowsOf(const std::string& path, const RandomTable& table) {
	const std::string row = "typeof(a) || quote(a) || typeof(b) || quote(b) || typeof(c) || quote(c)";
	SQLite::Database database(path, SQLite::OPEN_READONLY);
	SQLite::Statement query(
	    database, std::string("SELECT ") + (*table.key != '\0' ? table.key : "''") + ", " + row +
	                  (std::string(table.name) == "hidden" ? " || coalesce(rowid || oid || _rowid_, '')" : "") +
	                  " FROM " + table.name);
	std::multimap<std::string, std::string> rows;
	while (query.executeStep()) {
		rows.emplace(query.getColumn(0).getString(), query.getColumn(1).getString());
	}
	return rows;
}

publisher::RowCounts NaiveCounts(const std::string& before, const std::string& after, const RandomTable& table) {
	const auto left = RowsOf(before, table);
	const auto right = RowsOf(after, table);
	publisher::RowCounts counts;
	if (*table.key == '\0') {
		std::multiset<std::string> old_rows;
		for (const auto& [key, row] : left) {
			old_rows.insert(row);
		}
		for (const auto& [key, row] : right) {
			if (const auto same = old_rows.find(row); same != old_rows.end()) {
				old_rows.erase(same);
			} else {
				++counts.inserted;
			}
		}
		counts.deleted = old_rows.size();
		return counts;
	}
	for (const auto& [key, row] : right) {
		const auto old_row = left.find(key);
		counts.inserted += old_row == left.end() ? 1U : 0U;
		counts.updated += old_row != left.end() && old_row->second != row ? 1U : 0U;
	}
	for (const auto& [key, row] : left) {
		counts.deleted += right.count(key) == 0 ? 1U : 0U;
	}
	return counts;
}

TEST(ChangesProperty, CountsAreThoseOfANaiveComparison) {
	constexpr unsigned kRounds = 60;
	const char* chosen = std::getenv("TARN_SEED");
	const unsigned first = chosen != nullptr ? static_cast<unsigned>(std::atoi(chosen)) : std::random_device()();
	publisher::RowCounts all;
	for (unsigned seed = first; seed != first + kRounds; ++seed) {
		SCOPED_TRACE("TARN_SEED=" + std::to_string(seed));
		const TemporaryDirectory directory;
		const std::string before = directory / "before";
		const std::string after = directory / "after";
		const RandomPair made(before, after, seed);
		const publisher::DatabaseChange found = publisher::CompareDatabases(before, after, 2);
		std::map<std::string, publisher::RowCounts> counts;
		for (const publisher::TableChange& table : found.tables) {
			EXPECT_EQ(table.obstacle, "");
			EXPECT_GT(table.rows.Total(), 0U);
			counts[table.name] = table.rows;
			all += table.rows;
		}
		for (const RandomTable& table : kTables) {
			const publisher::RowCounts naive = NaiveCounts(before, after, table);
			EXPECT_EQ(counts[table.name].inserted, naive.inserted) << table.name;
			EXPECT_EQ(counts[table.name].updated, naive.updated) << table.name;
			EXPECT_EQ(counts[table.name].deleted, naive.deleted) << table.name;
		}
	}
	EXPECT_GT(all.inserted, 0U);
	EXPECT_GT(all.updated, 0U);
	EXPECT_GT(all.deleted, 0U);
}

} // namespace

} // namespace tarn::test
