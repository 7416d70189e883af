/** @file A tree with plain files and databases that changes at random. */
#ifndef TESTS_UNIT_SUPPORT_RANDOM_TREE_H
#define TESTS_UNIT_SUPPORT_RANDOM_TREE_H

#include "diff_fixture.h"

#include <array>
#include <random>
#include <string>

namespace tarn::test {

/** One tree that changes at random, the same for the same seed. */
class RandomTree {
public:
	RandomTree(std::string root, unsigned seed) : root_(std::move(root)), random_(seed) {
		for (const char* name : kDatabases) {
			ExecuteSql(root_ + "/" + name,
			    "CREATE TABLE t(i INTEGER PRIMARY KEY, a TEXT, r REAL); CREATE TABLE u(x UNIQUE, y);"
			    "CREATE TABLE w(k TEXT PRIMARY KEY, v) WITHOUT ROWID;"
			    "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 300)"
			    "INSERT INTO t SELECT i, hex(i * 7919), i * 0.5 FROM c;");
		}
	}

	void Edit() {
		for (const char* name : kDatabases) {
			if (Below(3) > 0) {
				ExecuteSql(root_ + "/" + name, DatabaseEdit());
			}
		}
		if (Below(4) == 0) {
			fs::remove_all(root_ + "/" + kDirectories.at(static_cast<std::size_t>(Below(kDirectories.size()))));
		}
		for (int i = Below(4); i > 0; --i) {
			EditFile(root_ + "/" + kFiles.at(static_cast<std::size_t>(Below(kFiles.size()))));
		}
	}

	static constexpr std::array<const char*, 2> kDatabases = {"one.sqlite", "two.sqlite"};

private:
	static constexpr std::array<const char*, 10> kFiles = {
	    "a", "a-journal", "b", "d/a", "d/a-wal", "d/b", "d/e/f", "d/e/g/h", "d-e/f", "g-h"};
	static constexpr std::array<const char*, 4> kDirectories = {"d", "d/e", "d/e/g", "d-e"};

	int Below(std::size_t bound) { return static_cast<int>(random_() % bound); }
	std::string Number() { return std::to_string(Below(400)); }

	std::string DatabaseEdit() {
		switch (Below(15)) {
		case 0:
			return "PRAGMA user_version = " + Number();
		case 1:
			return "CREATE INDEX IF NOT EXISTS i" + Number() + " ON t(a)";
		case 2:
			return "UPDATE t SET r = 0.1 + " + Number() + " WHERE i % 7 = 0";
		case 3:
			return "VACUUM";
		case 4:
			return "INSERT OR REPLACE INTO w VALUES('k" + Number() + "' || char(10), zeroblob(" + Number() + "))";
		case 5:
			return "DELETE FROM t WHERE i % 50 = " + std::to_string(Below(50));
		case 6:
			return "INSERT OR REPLACE INTO u VALUES(" + Number() + ", 'line' || char(10) || 'two')";
		case 7:
			return "UPDATE OR IGNORE u SET x = x + 1";
		case 8:
			return "UPDATE t SET i = i + 1000; UPDATE t SET i = (SELECT count(*) FROM t AS o WHERE o.i <= t.i);";
		case 9:
			return "CREATE TEMP TABLE k AS SELECT a, r FROM t WHERE i % 90 > 0 ORDER BY r, a; DELETE FROM t;"
			       "INSERT INTO t(a, r) SELECT a, r FROM k; DROP TABLE k; VACUUM";
		default:
			return "UPDATE t SET a = 'v' || " + Number() + " WHERE i % 31 = " + std::to_string(Below(31));
		}
	}

	void EditFile(const std::string& path) {
		const bool exists = fs::exists(path);
		switch (Below(5)) {
		case 0:
			fs::remove(path);
			return;
		case 1:
			WriteFile(path, Noise(static_cast<std::size_t>(Below(3000)), static_cast<unsigned>(random_())));
			return;
		case 2:
			if (exists) {
				fs::permissions(
				    path, fs::perms::owner_exec, Below(2) > 0 ? fs::perm_options::add : fs::perm_options::remove);
			}
			return;
		default:
			WriteFile(path, (exists ? ReadFile(path) : Noise(2000, 4)) + "line " + Number() + "\n");
		}
	}

	std::string root_;
	std::mt19937 random_;
};

} // namespace tarn::test

#endif
