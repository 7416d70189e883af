// Random databases that are changed or made again at random: there is a script for every pair of versions.
#include "diff_fixture.h"
#include "publisher/diff/script_encoder.h"
#include "publisher/packages/device.h"
#include "publisher/sqlite/sqlite_content.h"

#include <cstdlib>
#include <functional>
#include <random>

namespace tarn::test {

namespace {

/** A database with tables of every kind, which changes at random; the same for the same seed. */
class RandomDatabase {
public:
	RandomDatabase(std::string path, unsigned seed) : path_(std::move(path)), random_(seed) {
		ExecuteSql(path_, std::string(kSchema) + Filled());
	}

	void Change() {
		std::string changes = "BEGIN;";
		for (int i = 1 + Below(6); i > 0; --i) {
			changes += Below(3) > 0 ? RowChange(AnyTable()) : Rebuilding(AnyTable());
		}
		ExecuteSql(path_, changes + "COMMIT;" + (Below(4) == 0 ? "VACUUM;" : ""));
	}

private:
	static constexpr const char* kSchema =
	    "CREATE TABLE plain(a, b TEXT, c REAL); CREATE TABLE number(id INTEGER PRIMARY KEY, a, b TEXT, c);"
	    "CREATE TABLE counted(id INTEGER PRIMARY KEY AUTOINCREMENT, a, b TEXT, c);"
	    "CREATE TABLE only(a, b TEXT UNIQUE, c); CREATE TABLE folded(a, b TEXT UNIQUE COLLATE NOCASE, c);"
	    "CREATE TABLE keyed(a, b TEXT PRIMARY KEY, c) WITHOUT ROWID;"
	    "CREATE TABLE pairs(a, b TEXT, c, PRIMARY KEY(b, c)) WITHOUT ROWID;"
	    "CREATE TABLE made(a, b TEXT, c, d AS (a || b), e AS (length(b)) STORED); CREATE INDEX of_made ON made(d);"
	    "CREATE TABLE \"or'der \"\"by\"(a, b TEXT, c); CREATE UNIQUE INDEX expressed ON \"or'der \"\"by\"(b || 'x');"
	    "CREATE TABLE child(a REFERENCES number(id) ON DELETE CASCADE, b TEXT REFERENCES only(b), c);";
	static constexpr std::array<const char*, 10> kTables = {
	    "plain", "number", "counted", "only", "folded", "keyed", "pairs", "made", "\"or'der \"\"by\"", "child"};

	int Below(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }
	std::string AnyTable() { return kTables.at(static_cast<std::size_t>(Below(kTables.size()))); }

	std::string Value() {
		static const std::vector<std::string> kValues = {"NULL", "9223372036854775807", "-9223372036854775808",
		    "9007199254740993", "0.1 + 0.2", "-1 / 3.0", "5e-324", "1e300 / 7", "9e999", "1.0", "1", "''", "x''",
		    "x'00ff0a27'", "'a' || char(0) || 'b'", "'it''s' || char(10) || ';' || char(13, 10)",
		    "CAST(x'fffe' AS TEXT)", "'Größe 東京'"};
		const int choice = Below(25);
		return choice < static_cast<int>(kValues.size()) ? kValues[static_cast<std::size_t>(choice)]
		                                                 : std::to_string(Below(1000000));
	}
	/** Long enough to be edited rather than written again. */
	std::string Text() {
		const std::string end = " || ' " + std::to_string(Below(100000)) + "'";
		return Below(3) > 0 ? "'text'" + end : "'Größe ' || hex(zeroblob(60))" + end + (Below(2) > 0 ? "|| 'ü'" : "");
	}

	std::string Filled() {
		std::string sql = "BEGIN;";
		for (const char* table : kTables) {
			for (int i = Below(120); i > 0; --i) {
				sql += Insertion(table);
			}
		}
		return sql + "COMMIT;";
	}

	std::string Insertion(const std::string& table) {
		const std::string key = table == "pairs" ? std::to_string(Below(9)) : Value();
		return "INSERT OR IGNORE INTO " + table + "(a,b,c) VALUES(" + Value() + "," + Text() + "," + key + ");";
	}

	std::string RowChange(const std::string& table) {
		const std::string where =
		    " WHERE length(b) % 7 = " + std::to_string(Below(7)) + " AND b > 'text " + std::to_string(Below(9)) + "';";
		switch (Below(6)) {
		case 0:
			return "DELETE FROM " + table + where;
		case 1:
			return "UPDATE OR IGNORE " + table + " SET a = " + Value() + where;
		case 2:
			return "UPDATE OR IGNORE " + table + " SET b = substr(b, 1, 20) || 'ä' || substr(b, " +
			       std::to_string(19 + Below(5)) + ")" + where;
		case 3:
			return Exchange(table);
		case 4:
			return "UPDATE " + table + " SET a = CAST(a AS BLOB)" + where;
		default:
			return Insertion(table) + Insertion(table);
		}
	}

	/** The first text goes to the last row, and the last to the first. */
	static std::string Exchange(const std::string& table) {
		return "CREATE TEMP TABLE k AS SELECT min(b) AS low, max(b) AS high FROM " + table + ";UPDATE OR IGNORE " +
		       table + " SET b = 'between' WHERE b = (SELECT low FROM k);UPDATE OR IGNORE " + table +
		       " SET b = (SELECT low FROM k) WHERE b = (SELECT high FROM k);UPDATE OR IGNORE " + table +
		       " SET b = (SELECT high FROM k) WHERE b = 'between';DROP TABLE k;";
	}

	/** All rows again, in some order, some of them changed or gone, so that they get other row ids. */
	std::string Rebuilding(const std::string& table) {
		static const std::array<const char*, 4> kOrders = {"b", "c, b DESC", "length(b), b", "b DESC"};
		const std::string order = kOrders.at(static_cast<std::size_t>(Below(kOrders.size())));
		const std::string more = Below(2) > 0 ? Insertion(table) + Insertion(table) : "";
		return "CREATE TEMP TABLE k AS SELECT a, b, c FROM " + table + " WHERE length(b || a) % 13 <> " +
		       std::to_string(Below(20)) + ";DELETE FROM " + table + ";" + more + "INSERT OR IGNORE INTO " + table +
		       "(a,b,c) SELECT a, b, c FROM k ORDER BY " + order + ";DROP TABLE k;";
	}

	std::string path_;
	std::mt19937 random_;
};

class ScriptProperty : public ::testing::Test {
protected:
	/** Executes a script on a copy of what it makes; it may fail. Returns what it changed. */
	std::optional<std::string> ChangedByASecondExecution(const std::string& after, const std::string& script) const {
		const std::string again = directory_ / "again";
		fs::copy_file(after, again, fs::copy_options::overwrite_existing);
		try {
			publisher::ExecuteScript(again, script);
		} catch (const publisher::DeviceError&) {
			EXPECT_EQ(ReadFile(again), ReadFile(after)) << "the script was not rolled back";
		}
		return publisher::FindContentDifference(again, after);
	}

	TemporaryDirectory directory_;
};

TEST_F(ScriptProperty, EveryChangeOfRowsHasAScriptThatDevicesCanExecute) {
	constexpr int kRounds = 12;
	constexpr int kSteps = 5;
	int renumbered = 0;
	const char* chosen = std::getenv("TARN_SEED");
	const unsigned first = chosen != nullptr ? static_cast<unsigned>(std::atoi(chosen)) : std::random_device()();
	for (unsigned seed = first; seed < first + kRounds; ++seed) {
		SCOPED_TRACE("TARN_SEED=" + std::to_string(seed));
		const std::string published = directory_ / "published" + std::to_string(seed);
		const std::string device = directory_ / "device" + std::to_string(seed);
		const std::string before = directory_ / "before";
		RandomDatabase database(published, seed);
		fs::copy_file(published, device);
		for (int step = 0; step < kSteps; ++step) {
			fs::copy_file(published, before, fs::copy_options::overwrite_existing);
			database.Change();
			fs::create_directory(directory_ / "scratch");
			const std::string script = directory_ / "script";
			ASSERT_NO_THROW(publisher::EncodeScript(
			    {before, published, device}, script, directory_ / "scratch", {3, std::uint64_t{1} << 30U}));
			ASSERT_NO_THROW(publisher::ExecuteScript(device, script)) << ReadFile(script);
			EXPECT_EQ(publisher::FindContentDifference(device, published), std::nullopt);
			EXPECT_EQ(ChangedByASecondExecution(published, script), std::nullopt);
			EXPECT_TRUE(fs::is_empty(directory_ / "scratch"));
			renumbered += ReadFile(script).find("=-rowid") != std::string::npos ? 1 : 0;
		}
	}
	EXPECT_GT(renumbered, 0) << "no table was made again";
}

} // namespace

} // namespace tarn::test
