// Single patches: their header, and the choice between ways by size.
#include "decoder/decode.h"
#include "diff_fixture.h"
#include "publisher/common/files.h"
#include "publisher/common/program.h"
#include "publisher/diff/file_encoder.h"
#include "publisher/diff/script_encoder.h"
#include "publisher/sqlite/sqlite_content.h"

#include <sys/stat.h>
#include <xxhash.h>

#include <atomic>

namespace tarn::test {

namespace {

using publisher::PatchKind;

/** The text of what a function throws; empty when it throws nothing. */
template<typename Function>
std::string ErrorOf(const Function& function) {
	try {
		function();
		return "";
	} catch (const std::exception& error) {
		return error.what();
	}
}

class Encoding : public ::testing::Test {
protected:
	Encoding() {
		fs::create_directory(directory_ / "scratch");
		encoders_ = {publisher::FindProgram("xdelta3"), 12, std::uint64_t{1} << 30U};
	}

	publisher::TreeFile File(const std::string& name, bool executable = false) const {
		return {name, directory_ / name, fs::file_size(directory_ / name), executable};
	}
	publisher::EncodedFile Encode(const publisher::TreeFile& before, const publisher::TreeFile& after) {
		task_.change = {"name", before, after};
		return publisher::EncodeFile(task_, encoders_, directory_ / "scratch");
	}
	void EncodePatch(const std::string& before, const std::string& after) const {
		publisher::EncodeVcdiff(*encoders_.vcdiff, directory_ / before, directory_ / after, directory_ / "patch",
		    directory_ / "scratch", encoders_.memory);
	}

	TemporaryDirectory directory_;
	publisher::Encoders encoders_;
	publisher::EncodingTask task_;
};

TEST_F(Encoding, StatesSizesAndChecksumInThePatch) {
	WriteFile(directory_ / "before", Noise(5000, 1));
	const std::string after = Noise(5000, 1) + "more";
	WriteFile(directory_ / "after", after);
	EncodePatch("before", "after");
	XXH128_canonical_t hash;
	XXH128_canonicalFromHash(&hash, XXH3_128bits(after.data(), after.size()));
	std::ostringstream header;
	header << "TARNVCD1 5000 5004 " << std::hex << std::setfill('0');
	for (const unsigned char byte : hash.digest) {
		header << std::setw(2) << static_cast<unsigned>(byte);
	}
	EXPECT_THAT(ReadFile(directory_ / "patch"), HasSubstr(header.str()));
}

TEST_F(Encoding, FindsContentThatMovedAnywhereInTheFile) {
	const std::string first = Noise(3'000'000, 1);
	const std::string second = Noise(3'000'000, 2);
	WriteFile(directory_ / "before", first + second);
	WriteFile(directory_ / "after", second + first);
	EncodePatch("before", "after");
	EXPECT_LT(fs::file_size(directory_ / "patch"), 1000U);
}

TEST_F(Encoding, PatchesCompressedFilesAsTheyAre) {
	const std::string gzip = std::string("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03", 10) + Noise(2000, 3);
	WriteFile(directory_ / "before", gzip);
	WriteFile(directory_ / "after", gzip + "x");
	EncodePatch("before", "after");
	decoder::DecodeFile(directory_ / "before", directory_ / "decoded", directory_ / "patch");
	EXPECT_EQ(ReadFile(directory_ / "decoded"), gzip + "x");
}

TEST_F(Encoding, ChoosesTheSmallestByCompressedSize) {
	task_.may_patch = true;
	WriteFile(directory_ / "before", Noise(5000, 1));
	WriteFile(directory_ / "after", Noise(5000, 1) + "more");
	EXPECT_EQ(Encode(File("before"), File("after")).kind, PatchKind::kVcdiff);
	WriteFile(directory_ / "zeros", std::string(100'000, 'z'));
	const publisher::EncodedFile whole = Encode(File("before"), File("zeros"));
	EXPECT_EQ(whole.kind, PatchKind::kWhole);
	EXPECT_EQ(whole.input, directory_ / "zeros");
	EXPECT_THAT(whole.warning, IsEmpty());
}

TEST_F(Encoding, TakesWholeFilesWhereDevicesNeedThem) {
	task_.may_patch = true;
	WriteFile(directory_ / "before", Noise(5000, 1));
	WriteFile(directory_ / "after", Noise(5000, 1) + "more");
	WriteFile(directory_ / "empty", "");
	EXPECT_EQ(Encode(File("before"), File("after", true)).kind, PatchKind::kWhole);
	EXPECT_EQ(Encode(File("empty"), File("after")).kind, PatchKind::kWhole);
	EXPECT_EQ(Encode(File("before"), File("empty")).kind, PatchKind::kWhole);
	task_.may_patch = false;
	EXPECT_EQ(Encode(File("before"), File("after")).kind, PatchKind::kWhole);
}

TEST_F(Encoding, TriesScriptsOnTheFileThatDevicesHave) {
	const std::string table = "CREATE TABLE t(a UNIQUE);";
	ExecuteSql(directory_ / "before", table + "INSERT INTO t VALUES(1), (2)");
	ExecuteSql(directory_ / "after", table + "INSERT INTO t VALUES(1), (5)");
	ExecuteSql(directory_ / "lineage", table + "INSERT INTO t VALUES(1), (2), (7)");
	const auto encode = [this](const std::string& lineage) {
		publisher::EncodeScript({directory_ / "before", directory_ / "after", lineage}, directory_ / "script",
		    directory_ / "scratch", {12, encoders_.memory});
	};
	EXPECT_EQ(ErrorOf([&] { encode(""); }), "");
	EXPECT_EQ(ReadFile(directory_ / "script"), "UPDATE t SET a=5 WHERE rowid=2;\n");
	EXPECT_THAT(ErrorOf([&] { encode(directory_ / "lineage"); }), HasSubstr("on devices that have executed scripts"));
	EXPECT_THAT(FilesBelow(directory_ / "scratch"), IsEmpty());
}

TEST_F(Encoding, RefusesAScriptThatLeavesADamagedIndex) {
	ExecuteSql(directory_ / "damaged", IndexWithoutEntry());
	ExecuteSql(directory_ / "repaired", IndexWithoutEntry());
	ExecuteSql(directory_ / "repaired", "REINDEX");
	const auto encode = [this](const std::string& before, const std::string& lineage) {
		return ErrorOf([&] {
			publisher::EncodeScript({directory_ / before, directory_ / "repaired", lineage}, directory_ / "script",
			    directory_ / "scratch", {12, encoders_.memory});
		});
	};
	EXPECT_EQ(encode("repaired", ""), "");
	EXPECT_THAT(encode("damaged", ""), HasSubstr("the database is damaged: "));
	EXPECT_THAT(encode("repaired", directory_ / "damaged"), HasSubstr("the database is damaged: "));
}

TEST_F(Encoding, RefusesADatabaseWhoseScriptWouldTakeMoreThanDevicesAllow) {
	const std::string table = "CREATE TABLE t(a);";
	ExecuteSql(directory_ / "before", table + "INSERT INTO t VALUES(1)");
	ExecuteSql(directory_ / "after", table + "INSERT INTO t VALUES(zeroblob(5000000))");
	EXPECT_THAT(ErrorOf([this] {
		publisher::EncodeScript({directory_ / "before", directory_ / "after", ""}, directory_ / "script",
		    directory_ / "scratch", {12, encoders_.memory});
	}),
	    HasSubstr("Fail apply sql cmd"));
}

/** Devices have no memory to move all rows of a large table by one statement. */
TEST_F(Encoding, MovesTheRowsOfALargeTableInParts) {
	const std::string rows = "CREATE TABLE t(a); WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c "
	                         "WHERE i < 250000) INSERT INTO t SELECT i FROM c";
	ExecuteSql(directory_ / "before", rows);
	ExecuteSql(directory_ / "after", rows + " WHERE i % 9000 <> 5 UNION SELECT i + 0.5 FROM c WHERE i % 7000 = 6");
	publisher::EncodeScript({directory_ / "before", directory_ / "after", ""}, directory_ / "script",
	    directory_ / "scratch", {1, encoders_.memory});
	const std::string script = ReadFile(directory_ / "script");
	EXPECT_LT(script.size(), 5000U);
	EXPECT_THAT(script, ::testing::ContainsRegex("=-rowid.*\n.*=-rowid.*\n.*=-rowid"));
	EXPECT_THAT(script, ::testing::ContainsRegex("tarn_m.i;\n.*tarn_m.i;\n.*tarn_m.i;\n"));
}

TEST_F(Encoding, MeasuresAsPackagesCompress) {
	WriteFile(directory_ / "zeros", std::string(1'000'000, 'z'));
	WriteFile(directory_ / "noise", Noise(1'000'000, 9));
	EXPECT_LT(publisher::CompressedSizeBelow(UINT64_MAX, directory_ / "zeros", 12).value(), 1000U);
	EXPECT_GT(publisher::CompressedSizeBelow(UINT64_MAX, directory_ / "noise", 12).value(), 999'000U);
	EXPECT_EQ(publisher::CompressedSizeBelow(1000, directory_ / "noise", 12), std::nullopt);
	WriteFile(directory_ / "empty", "");
	EXPECT_TRUE(publisher::CompressedSizeBelow(100, directory_ / "empty", 12).has_value());
}

TEST(Program, GetsAnEnvironmentOfItsOwn) {
	const TemporaryDirectory directory;
	const Variable harmful("XDELTA", "-x");
	publisher::RunProgram("/usr/bin/env", {}, directory / "output", directory / "errors");
	EXPECT_EQ(ReadFile(directory / "output"), "PATH=/usr/bin:/bin\nLC_ALL=C\n");
}

TEST(Program, SaysHowItFailed) {
	const TemporaryDirectory directory;
	const auto run = [&](const std::string& program, const std::string& script) {
		return ErrorOf([&] {
			publisher::RunProgram(program, {"-c", script}, directory / "output", directory / "errors");
		});
	};
	EXPECT_EQ(run("/bin/sh", "echo 'no\x1b' >&2; echo more >&2; exit 7"), "/bin/sh failed with status 7: no\\x1b");
	EXPECT_THAT(run("/bin/sh", "kill -9 $$"), HasSubstr("was killed by signal 9"));
	EXPECT_THAT(run("/missing", ""), HasSubstr("/missing could not be run: No such file or directory"));
}

TEST(WorkDirectoryTest, IsPrivateAndGoesWithTheObject) {
	const TemporaryDirectory repository;
	{
		const publisher::WorkDirectory work(repository.Path());
		struct stat status {};
		ASSERT_EQ(stat((work / ".").c_str(), &status), 0);
		EXPECT_EQ(status.st_mode & 07777U, 0700U);
		WriteFile(work.Make("a/b") + "/file", "content");
		EXPECT_EQ(FilesBelow(repository.Path()).size(), 1U);
	}
	EXPECT_TRUE(fs::is_empty(repository.Path()));
}

} // namespace

} // namespace tarn::test
