#include "diff_fixture.h"

#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <random>

namespace tarn::test {

void ExecuteSql(const std::string& database, const std::string& sql) {
	SQLite::Database file(database, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
	file.exec("PRAGMA synchronous = OFF");
	file.exec(sql);
}

std::string IndexWithoutEntry() {
	return "CREATE TABLE t(i INTEGER PRIMARY KEY, a, b); CREATE INDEX n ON t(a) WHERE i < 3000;"
	       "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 3000)"
	       "INSERT INTO t SELECT i, 'row ' || (i * 7919 % 1000), i FROM c;"
	       "PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = 'CREATE INDEX n ON t(a)' WHERE name = 'n';";
}

std::string Noise(std::size_t size, unsigned seed) {
	std::mt19937 random(seed);
	std::string text(size, '\0');
	for (char& byte : text) {
		byte = static_cast<char>(random());
	}
	return text;
}

void ChangeInWorkDirectory(const std::string& repository, const std::string& name) {
	int changed = 0;
	for (const fs::directory_entry& entry : fs::directory_iterator(repository)) {
		if (const fs::path file = entry.path() / name; fs::exists(file)) {
			fs::remove(file); // which another tree may share
			WriteFile(file.string(), "changed meanwhile");
			++changed;
		}
	}
	EXPECT_EQ(changed, 1) << name;
}

DiffPublisherTest::DiffPublisherTest() {
	options_.keep_diffs = 30; // of trees so small that a chain soon outweighs the full package
	options_.level = 3;
	// Enough that a diff package is smaller than the full one.
	Put("bulk", Noise(20'000, 1));
}

std::string DiffPublisherTest::Diff(int version) const {
	return options_.repository + "/packages/db/db_d" + std::to_string(version) + ".tarn";
}

std::vector<std::string> DiffPublisherTest::Diffs(int from, int to) const {
	std::vector<std::string> packages;
	for (int version = from + 1; version <= to; ++version) {
		packages.push_back(Diff(version));
	}
	return packages;
}

std::vector<int> DiffPublisherTest::OfferedDiffs() const {
	std::vector<int> versions;
	for (const std::string& key : Document()["db_list"]["db"]["diff_files"].getMemberNames()) {
		versions.push_back(std::stoi(key));
	}
	std::sort(versions.begin(), versions.end());
	return versions;
}

Kinds DiffPublisherTest::KindsIn(int version) const {
	Kinds kinds;
	for (const publisher::DiffMember& member :
	    publisher::ReadDiffPackage(archive::ArchiveFile(Diff(version))).members) {
		kinds[member.name] = publisher::PatchKindName(member.kind);
	}
	return kinds;
}

Json::Value DiffPublisherTest::MetadataOf(int version) const {
	return publisher::ReadMetadata(archive::ArchiveFile(Diff(version)));
}

std::map<std::string, std::string> DiffPublisherTest::Followed(int from, int to) const {
	DeviceTree device(PublicKey());
	device.Install(Package(from));
	device.Update(Diffs(from, to));
	return device.Files();
}

} // namespace tarn::test
