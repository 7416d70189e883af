// Hostile SQL scripts: a script changes the whole of its database or nothing, leaves it sound, and makes no other file.
// The input is the script.
#include "dataupdate/internal/sql_script.h"
#include "dataupdate/update_error.h"
#include "entry.h"
#include "scratch.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <string>

namespace {

using tarn::dataupdate::UpdateError;
using tarn::test::Content;
using tarn::test::Put;
using tarn::test::Require;

constexpr char kSchema[] = R"(
CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT UNIQUE, c BLOB);
CREATE TABLE w(k TEXT PRIMARY KEY, v REAL) WITHOUT ROWID;
CREATE INDEX i ON t(c);
CREATE TRIGGER g AFTER DELETE ON t BEGIN INSERT OR REPLACE INTO w VALUES(old.b, old.a); END;
CREATE VIEW s AS SELECT a, b FROM t;
CREATE VIRTUAL TABLE f USING fts5(x);
CREATE VIRTUAL TABLE r USING rtree(id, x0, x1);
INSERT INTO t VALUES(1,'one',x'01'),(2,'two',x'02'),(3,'three',NULL);
INSERT INTO w VALUES('k',1.5);
INSERT INTO f VALUES('some words'),('other words');
INSERT INTO r VALUES(1,0,1),(2,5,6);)";

/** A directory with one database and one script in it. */
class Place {
public:
	Place() {
		std::filesystem::create_directory(scratch_ / "d");
		SQLite::Database(Database(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(kSchema);
		original_ = Content(Database());
	}
	std::string Database() const { return scratch_ / "d/db"; }
	std::string Script() const { return scratch_ / "d/script"; }
	const std::string& Original() const { return original_; }
	std::ptrdiff_t Files() const {
		return std::distance(
		    std::filesystem::directory_iterator(scratch_ / "d"), std::filesystem::directory_iterator());
	}

private:
	tarn::test::Scratch scratch_;
	std::string original_;
};

bool IsDone(const Place& place) {
	constexpr std::chrono::seconds kTime(3);
	try {
		tarn::dataupdate::ExecuteSqlScript(place.Database(), place.Script(), kTime);
		return true;
	} catch (const UpdateError& error) {
		Require(std::string(error.what()).rfind("Fail apply sql cmd: ", 0) == 0, "a refusal has its form");
		return false;
	}
}

void CheckSound(const std::string& path) {
	SQLite::Database database(path, SQLite::OPEN_READONLY);
	const std::string result = database.execAndGet("PRAGMA integrity_check").getString();
	Require(result == "ok", "a database is sound: " + result);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const Place place;
	Put(place.Database(), place.Original());
	Put(place.Script(), tarn::test::Text(data, size));
	const std::int64_t limit = sqlite3_hard_heap_limit64(-1);
	if (IsDone(place)) {
		CheckSound(place.Database());
	} else {
		Require(Content(place.Database()) == place.Original(), "a script that fails changes nothing");
	}
	Require(place.Files() == 2, "a script makes no file");
	Require(sqlite3_hard_heap_limit64(-1) == limit, "the limit of memory is what it was");
	return 0;
}
