// Databases with full-text tables and R*Trees, which scripts change by statements on the virtual tables themselves.
#include "diff_fixture.h"
#include "publisher/sqlite/sqlite_content.h"
#include "publisher/sqlite/virtual_tables.h"

#include <SQLiteCpp/SQLiteCpp.h>

namespace tarn::test {

namespace {

constexpr const char* kCount = "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 400) ";

class VirtualTables : public DiffPublisherTest {
protected:
	static std::vector<std::string> Answers(const std::string& database, const std::string& query) {
		const SQLite::Database file(database, SQLite::OPEN_READONLY);
		SQLite::Statement statement(file, query);
		std::vector<std::string> rows;
		while (statement.executeStep()) {
			std::string row;
			for (int i = 0; i < statement.getColumnCount(); ++i) {
				row += statement.getColumn(i).getString() + "|";
			}
			rows.push_back(row);
		}
		return rows;
	}
	/** Devices that come by diffs from either version hold the rows, and find by every query what the published holds.
	 */
	void ExpectSame(int from, int to, const std::vector<std::string>& queries) const {
		DeviceTree device(PublicKey());
		device.Install(Package(from));
		for (int version = from + 1; version <= to; ++version) {
			device.Update({Diff(version)});
		}
		EXPECT_EQ(publisher::FindContentDifference(device.Path("db"), TreePath("db")), std::nullopt) << from;
		for (const std::string& query : queries) {
			const std::vector<std::string> published = Answers(TreePath("db"), query);
			EXPECT_FALSE(published.empty()) << query;
			EXPECT_EQ(Answers(device.Path("db"), query), published) << query;
		}
		EXPECT_NO_THROW(publisher::RequireSoundIndexes(device.Path("db")));
	}
	void PublishFullText(const std::string& module, const std::vector<std::string>& queries) {
		Sql("db", "CREATE VIRTUAL TABLE words USING " + module +
		              "; CREATE TABLE t(a); INSERT INTO t VALUES(1);"
		              "INSERT INTO words(title, body) " +
		              kCount + "SELECT 'title ' || i, 'text number ' || (i * 7919 % 1000) || ' of it''s kind' FROM c;");
		Publish();
		for (int version = 2; version <= 4; ++version) {
			const std::string number = std::to_string(version);
			Sql("db", "UPDATE words SET body = 'changed in ' || char(10) || " + number +
			              " WHERE rowid % 40 = " + number + "; DELETE FROM words WHERE rowid = 1" + number +
			              "; INSERT INTO words(rowid, title, body) VALUES(100" + number +
			              ", 'new', 'inserted'); UPDATE t SET a = " + number);
			Publish();
			EXPECT_EQ(KindsIn(version), (Kinds{{"db", "sql"}})) << module;
		}
		for (int from = 1; from <= 3; ++from) {
			ExpectSame(from, 4, queries);
		}
		EXPECT_THAT(warnings_, IsEmpty());
	}
};

constexpr const char* kFound =
    "SELECT rowid, title, body FROM words WHERE words MATCH 'changed OR inserted' ORDER BY 1";
constexpr const char* kPhrase = "SELECT rowid FROM words WHERE words MATCH '\"text number\"' ORDER BY 1";

TEST_F(VirtualTables, OfFts5GoByScript) {
	PublishFullText("fts5(title, body, prefix=2, tokenize='porter unicode61')",
	    {kFound, kPhrase, "SELECT rowid, bm25(words) FROM words WHERE words MATCH 'ch*' ORDER BY rowid",
	        "SELECT rowid, highlight(words, 1, '<', '>') FROM words WHERE words MATCH 'change' ORDER BY rank, rowid"});
}

TEST_F(VirtualTables, OfFts5WithLessInTheirIndexGoByScript) {
	PublishFullText("fts5(title, body, detail=none, columnsize=0)", {kFound});
}

TEST_F(VirtualTables, OfFts4GoByScript) {
	PublishFullText("fts4(title, body, tokenize=porter, prefix=\"2\", order=desc)",
	    {kFound, kPhrase,
	        "SELECT rowid, hex(matchinfo(words, 'pcnalx')) FROM words WHERE words MATCH 'in*' ORDER BY 1"});
}

TEST_F(VirtualTables, OfFts3GoByScript) {
	PublishFullText("fts3(title, body)", {kFound, kPhrase, "SELECT snippet(words) FROM words WHERE words MATCH 'new'"});
}

TEST_F(VirtualTables, OfRTreesGoByScript) {
	Sql("db",
	    std::string("CREATE TABLE t(a); INSERT INTO t VALUES(1); CREATE VIRTUAL TABLE places USING rtree(id, x0, x1, "
	                "y0, y1, +note); CREATE VIRTUAL TABLE \"whole \"\"numbers\" USING rtree_i32(i, a, b);"
	                "INSERT INTO places ") +
	        kCount + "SELECT i, i / 7.0, i / 7.0 + 0.1, -i / 3.0, i / 3.0, 'note ' || i FROM c;" +
	        "INSERT INTO \"whole \"\"numbers\" " + kCount + "SELECT i, i * 10, i * 11 FROM c;");
	Publish();
	for (int version = 2; version <= 4; ++version) {
		const std::string number = std::to_string(version);
		// In another order, so that the tree is another one for the same rows.
		Sql("db", "CREATE TEMP TABLE k AS SELECT * FROM places; DELETE FROM places;"
		          "INSERT INTO places SELECT * FROM k ORDER BY id * 7919 % (1000 + " +
		              number + ");");
		Sql("db", "UPDATE places SET x0 = x0 - 1 / 3.0, note = 'it''s ' || char(10) || " + number +
		              " WHERE id % 50 = " + number + "; DELETE FROM places WHERE id = 1" + number +
		              "; INSERT INTO places VALUES(100" + number +
		              ", 0.1, 0.2, 0.3, 0.4, 'new'); UPDATE \"whole \"\"numbers\" SET b = 2000000000 WHERE i = " +
		              number + "; UPDATE t SET a = " + number);
		Publish();
		EXPECT_EQ(KindsIn(version), (Kinds{{"db", "sql"}}));
	}
	for (int from = 1; from <= 3; ++from) {
		ExpectSame(from, 4,
		    {"SELECT * FROM places WHERE x0 < 10 AND y1 > 0.1 ORDER BY id",
		        "SELECT * FROM \"whole \"\"numbers\" WHERE b > 1000 ORDER BY i"});
	}
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(VirtualTables, GoInAnotherWayWhenTheirIndexIsNotThatOfTheirRows) {
	Sql("db", std::string("CREATE VIRTUAL TABLE words USING fts5(a); INSERT INTO words ") + kCount +
	              "SELECT hex(randomblob(50)) FROM c;");
	Publish();
	Sql("db", "UPDATE words_content SET c0 = 'three' WHERE id = 2; INSERT INTO words VALUES('four')");
	Publish();
	EXPECT_THAT(warnings_, ElementsAre(HasSubstr("the index of words is not the one of its rows")));
	EXPECT_EQ(Followed(1, 2), PublishedTree());
}

TEST_F(VirtualTables, GoInAnotherWayWhenTheirRowsAreElsewhere) {
	Sql("db", std::string("CREATE TABLE t(a); CREATE VIRTUAL TABLE words USING fts5(a, content='t'); INSERT INTO t ") +
	              kCount + "SELECT 'row ' || i FROM c; INSERT INTO words(words) VALUES('rebuild');");
	Publish();
	Sql("db", "UPDATE t SET a = 'changed' WHERE rowid = 5; INSERT INTO words(words) VALUES('rebuild');");
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"db", "vcdiff"}}));
	EXPECT_EQ(Followed(1, 2), PublishedTree());
}

} // namespace

} // namespace tarn::test
