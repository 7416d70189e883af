#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/internal/patcher.h"
#include "fake_system.h"
#include "library_test.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

/** An entry of a description. */
std::string Entry(const std::string& name, const std::string& operation, const std::string& input = "") {
	return "\"" + name + R"(": {"operation": ")" + operation + R"(", "input_file": ")" + input + "\"}";
}

Patcher::KnownDigest Known(const std::map<std::string, std::string>& digests) {
	return [digests](const std::string& name) {
		const auto found = digests.find(name);
		return found == digests.end() ? std::nullopt : std::optional(found->second);
	};
}

class PatcherTest : public testing::Test {
protected:
	PatcherTest() {
		fs::create_directory(directory_ / "sum");
		fs::create_directory(directory_ / "db");
	}

	std::string Installed(const std::string& name) const { return directory_ / ("db/" + name); }
	std::string Copy(const std::string& name) const { return directory_ / ("sum/" + name); }
	/** Unpacks a package with these entries and these files, and applies it. */
	void Apply(const std::string& entries, const std::map<std::string, std::string>& files = {}) {
		const fs::path package = directory_ / ("package" + std::to_string(++packages_));
		for (const auto& [name, content] : files) {
			WriteFile(package / name, content);
		}
		WriteFile(package / "patch_infos.json", "{" + entries + "}");
		patcher_.ApplyPackage(package.string());
	}
	std::string Failure(const std::string& entries, const std::map<std::string, std::string>& files = {}) {
		return MessageOf([&] { Apply(entries, files); });
	}
	/** What is to be done, each as "<name> <operation>". */
	std::vector<std::string> Operations() const {
		std::vector<std::string> operations;
		for (const auto& [name, info] : patcher_.Modifications()) {
			operations.push_back(name + " " + std::to_string(info.operation));
		}
		return operations;
	}

	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
	int packages_ = 0;
	/** By default appends the patch to the source. */
	Patcher::Decoder decoder_ = [](const std::string& source, const std::string& output, const std::string& patch) {
		WriteFile(output, ReadFile(source) + ReadFile(patch));
	};
	Patcher patcher_{directory_ / "sum", directory_ / "db",
	    [this](const std::string& source, const std::string& output, const std::string& patch) {
		    decoder_(source, output, patch);
	    }};
};

TEST_F(PatcherTest, CopiesCreatedFilesUnderFlatNames) {
	Apply(Entry("a/b.c", "create", "in/new"), {{"in/new", "content"}});
	EXPECT_EQ(ReadFile(Copy("a_b_c")), "content");
	ASSERT_THAT(Operations(), ElementsAre("a/b.c 1"));
	EXPECT_EQ(patcher_.Modifications().at("a/b.c").source, Copy("a_b_c"));
}

TEST_F(PatcherTest, PatchesACopyOfTheInstalledFile) {
	WriteFile(Installed("sub/f"), "one ");
	Apply(Entry("sub/f", "update", "p.vcdiff"), {{"p.vcdiff", "two"}});
	EXPECT_EQ(ReadFile(Copy("sub_f")), "one two");
	EXPECT_EQ(ReadFile(Installed("sub/f")), "one ");
	EXPECT_THAT(Operations(), ElementsAre("sub/f 1"));
	EXPECT_THAT(EntriesBelow(directory_ / "sum"), ElementsAre("sub_f")); // The decoder's output is gone.
}

TEST_F(PatcherTest, GivesTheDecoderCopyOutputAndPatch) {
	WriteFile(Installed("f"), "one");
	std::vector<std::string> arguments;
	decoder_ = [&](const std::string& source, const std::string& output, const std::string& patch) {
		arguments = {source, output, patch};
		EXPECT_FALSE(fs::exists(output));
		WriteFile(output, "new");
	};
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", ""}});
	EXPECT_THAT(arguments, ElementsAre(Copy("f"), Copy("f.patchout"), directory_ / "package1/p.vcdiff"));
}

TEST_F(PatcherTest, PatchesOneCopyOverTheWholeChain) {
	WriteFile(Installed("f"), "1");
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", "2"}});
	WriteFile(Installed("f"), "changed meanwhile");
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", "3"}});
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", "4"}});
	EXPECT_EQ(ReadFile(Copy("f")), "1234");
	EXPECT_THAT(Operations(), ElementsAre("f 1"));
}

TEST_F(PatcherTest, PatchesWhatAnEarlierPackageCreated) {
	Apply(Entry("f", "create", "in"), {{"in", "1"}});
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", "2"}});
	EXPECT_EQ(ReadFile(Copy("f")), "12");
	Apply(Entry("f", "create", "in"), {{"in", "anew"}});
	EXPECT_EQ(ReadFile(Copy("f")), "anew");
}

TEST_F(PatcherTest, DoesTheLastOfSeveralOperations) {
	WriteFile(Installed("deleted"), "old");
	Apply(Entry("twice", "create", "in") + "," + Entry("deleted", "update", "p.vcdiff") + "," + Entry("back", "delete"),
	    {{"in", "1"}, {"p.vcdiff", "2"}});
	Apply(Entry("twice", "delete") + "," + Entry("deleted", "delete") + "," + Entry("back", "create", "in"),
	    {{"in", "3"}});
	EXPECT_THAT(Operations(), ElementsAre("back 1", "deleted 2", "twice 2"));
	EXPECT_EQ(patcher_.Modifications().at("deleted").source, Copy("deleted"));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("back"));
	EXPECT_EQ(ReadFile(Installed("back")), "3");
}

TEST_F(PatcherTest, RefusesAnUnknownOperation) {
	EXPECT_EQ(Failure(Entry("a/f", "move", "in"), {{"in", ""}}), "Unknown operation move for file a/f");
	EXPECT_EQ(Failure(Entry("f", "Create", "in"), {{"in", ""}}), "Unknown operation Create for file f");
	EXPECT_EQ(Failure(R"("f": {})"), "Unknown operation  for file f");
	EXPECT_EQ(Failure(Entry("f%s", "%d", "in"), {{"in", ""}}), "Unknown operation %d for file f%s");
	EXPECT_THAT(Operations(), IsEmpty());
}

TEST_F(PatcherTest, TellsPatchesByTheirExtensionAlone) {
	WriteFile(Installed("f"), "old");
	for (const std::string extension : {".VCDIFF", ".vcdiff2", ".sqliteDiff", ".diff", ""}) {
		EXPECT_EQ(Failure(Entry("f", "update", "p" + extension), {{"p" + extension, ""}}),
		    "Unsupported diff type: " + extension);
	}
	EXPECT_EQ(Failure(Entry("f", "update", "p.vcdiff/x"), {{"p.vcdiff/x", ""}}), "Unsupported diff type: ");
	EXPECT_EQ(Failure(Entry("f", "update", "missing.VCDIFF")), "Unsupported diff type: .VCDIFF");
	EXPECT_THAT(Operations(), IsEmpty());
}

TEST_F(PatcherTest, NeedsTheFilesThatAPackageNames) {
	EXPECT_THAT(Failure(Entry("f", "create", "missing")),
	    StartsWith("Fail to copy from " + directory_ / "package1/missing" + " to " + Copy("f") + ": "));
	EXPECT_THAT(Failure(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", ""}}),
	    StartsWith("Fail to copy from " + Installed("f") + " to " + Copy("f") + ": "));
	WriteFile(Installed("f"), ""); // An empty database.
	EXPECT_EQ(Failure(Entry("f", "update", "missing.sqlitediff")),
	    "Fail apply sql cmd: unable to read " + directory_ / "package3/missing.sqlitediff");
}

TEST_F(PatcherTest, ChecksAPackageBeforeItPatchesAnything) {
	EXPECT_EQ(Failure(Entry("a", "create", "in") + "," + Entry("b/../../x", "create", "in"), {{"in", ""}}),
	    "Illegal file name in diff package: b/../../x");
	EXPECT_EQ(Failure(Entry("a", "create", "in") + "," + Entry("b", "create", "../db"), {{"in", ""}}),
	    "Illegal input file in diff package: ../db");
	EXPECT_THAT(EntriesBelow(directory_ / "sum"), IsEmpty());
	EXPECT_THAT(Operations(), IsEmpty());
}

TEST_F(PatcherTest, RefusesTwoNamesForOneWorkingCopy) {
	const std::map<std::string, std::string> files = {{"in", "1"}, {"p.vcdiff", "2"}};
	EXPECT_EQ(Failure(Entry("a.b", "create", "in") + "," + Entry("a/b", "create", "in"), files),
	    "Working copies of a.b and a/b collide");
	WriteFile(Installed("c_d"), "old");
	EXPECT_EQ(Failure(Entry("c.d", "create", "in") + "," + Entry("c_d", "update", "p.vcdiff"), files),
	    "Working copies of c.d and c_d collide");
	EXPECT_EQ(ReadFile(Copy("c_d")), "1");
}

TEST_F(PatcherTest, RefusesTwoNamesForOneWorkingCopyAlongTheChainToo) {
	Apply(Entry("a/b", "create", "in"), {{"in", "1"}});
	Apply(Entry("a/b", "delete"));
	EXPECT_EQ(Failure(Entry("a_b", "create", "in"), {{"in", "2"}}), "Working copies of a/b and a_b collide");
}

TEST_F(PatcherTest, KeepsNamesApartThatAreOnlyDeleted) {
	WriteFile(Installed("a.b"), "old");
	WriteFile(Installed("a_b"), "old");
	Apply(Entry("a.b", "delete") + "," + Entry("a_b", "delete") + "," + Entry("a/b", "create", "in"), {{"in", "new"}});
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a", "a/b"));
	EXPECT_EQ(ReadFile(Installed("a/b")), "new");
}

TEST_F(PatcherTest, SaysThatAWorkingCopyCannotBeExamined) {
	const std::string name = std::string(200, 'a') + "/" + std::string(200, 'b');
	const std::string flat = std::string(200, 'a') + "_" + std::string(200, 'b'); // Longer than a name may be.
	WriteFile(Installed(name), "old");
	EXPECT_EQ(
	    Failure(Entry(name, "update", "p.vcdiff"), {{"p.vcdiff", ""}}), "Fail to get exists info from " + Copy(flat));
}

TEST_F(PatcherTest, LeavesADirectoryInAFilesPlaceToWhatPatches) {
	fs::create_directory(Installed("d"));
	patcher_ = Patcher(directory_ / "sum", directory_ / "db", decoder_, Known({{"d", std::string(96, '0')}}));
	const std::map<std::string, std::string> files = {{"p.sqlitediff", ""}, {"q.sqlitediff", "DELETE FROM t;"}};
	for (const std::string script : {"p.sqlitediff", "q.sqlitediff"}) {
		EXPECT_EQ(Failure(Entry("d", "update", script), files), "Fail apply sql cmd: unable to open database file");
	}
	EXPECT_TRUE(fs::is_directory(Installed("d")));
}

TEST_F(PatcherTest, LeavesLinksAndDirectoriesUnderCreateToTheCopy) {
	WriteFile(directory_ / "package1/deep/in", "content");
	fs::create_symlink(directory_ / "package1/deep/in", directory_ / "package1/link");
	fs::create_symlink("nowhere", directory_ / "package1/dangling");
	Apply(Entry("a", "create", "link") + "," + Entry("b", "create", "deep") + "," + Entry("c", "create", "dangling"));
	EXPECT_EQ(fs::read_symlink(Copy("a")), directory_ / "package1/deep/in");
	EXPECT_EQ(fs::read_symlink(Copy("c")), "nowhere");
	EXPECT_TRUE(fs::is_empty(Copy("b")));
	EXPECT_THAT(Operations(), ElementsAre("a 1", "b 1", "c 1"));
	WriteFile(Installed("a"), "old");
	EXPECT_EQ(MessageOf([this] { patcher_.Install(patcher_.CheckedChanges()); }), "Not a regular file: " + Copy("b"));
	EXPECT_EQ(ReadFile(Installed("a")), "old"); // Nothing is replaced when not all can be.
	Apply(Entry("b", "delete") + "," + Entry("c", "delete"));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_EQ(ReadFile(Installed("a")), "content");
	EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Installed("a"))));
	EXPECT_EQ(fs::hard_link_count(Installed("a")), 1U); // Not the file of somebody else under a second name.
}

TEST_F(PatcherTest, PatchesNoLinkThatAnEarlierPackageCreated) {
	WriteFile(directory_ / "outside", "old");
	fs::create_directory(directory_ / "package1");
	fs::create_symlink(directory_ / "outside", directory_ / "package1/link");
	Apply(Entry("f", "create", "link"));
	EXPECT_EQ(Failure(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", "!"}}), "Not a regular file: " + Copy("f"));
	EXPECT_EQ(ReadFile(directory_ / "outside"), "old");
}

TEST_F(PatcherTest, HasNoTypeOfPatchWithoutAnInput) {
	WriteFile(Installed("f"), "old");
	EXPECT_EQ(Failure(R"("f": {"operation": "update"})"), "Unsupported diff type: ");
	EXPECT_EQ(Failure(Entry("f", "update")), "Unsupported diff type: ");
	EXPECT_EQ(Failure(Entry("f", "update", "deep"), {{"deep/in", ""}}), "Unsupported diff type: ");
}

TEST_F(PatcherTest, TakesNamesInOtherSpellings) {
	WriteFile(Installed("a/b"), "1");
	WriteFile(Installed("c/d"), "old");
	Apply(Entry("a//b", "update", "./p.vcdiff") + "," + Entry("./f", "create", "deep//in") + "," +
	          Entry("./c/./d", "delete") + "," + Entry("c", "create", "p.vcdiff"),
	    {{"p.vcdiff", "2"}, {"deep/in", "new"}});
	EXPECT_THAT(Operations(), ElementsAre("./c/./d 2", "./f 1", "a//b 1", "c 1"));
	EXPECT_EQ(patcher_.Modifications().at("a//b").source, Copy("a__b"));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a", "a/b", "c", "f"));
	EXPECT_EQ(ReadFile(Installed("a/b")), "12");
	EXPECT_EQ(ReadFile(Installed("f")), "new");
}

TEST_F(PatcherTest, RefusesTwoSpellingsOfOneName) {
	WriteFile(Installed("f"), "1");
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", "2"}});
	EXPECT_EQ(Failure(Entry("./f", "update", "p.vcdiff"), {{"p.vcdiff", "3"}}), "Names f and ./f mean one file");
	EXPECT_EQ(Failure(Entry(".//f", "delete")), "Names f and .//f mean one file");
}

TEST_F(PatcherTest, KnowsAFileByItsRecordWhateverItsSpelling) {
	WriteFile(Installed("a/d"), "changed");
	patcher_ = Patcher(directory_ / "sum", directory_ / "db", decoder_, Known({{"a/d", std::string(96, '0')}}));
	EXPECT_EQ(Failure(Entry("a//d", "update", "p.sqlitediff"), {{"p.sqlitediff", ""}}),
	    "File " + Installed("a/d") + " digest check fail");
}

TEST_F(PatcherTest, RefusesADatabaseThatSomebodyWritesWhileItIsCopied) {
	WriteFile(Installed("d"), "old");
	WriteFile(directory_ / "right", "right");
	patcher_ =
	    Patcher(directory_ / "sum", directory_ / "db", decoder_, Known({{"d", FileSha384(directory_ / "right")}}));
	system_.on_call = [this](const std::string& call) {
		if (call == "copy_file_range") { // By the time of the digest all is well.
			WriteFile(Installed("d"), "right");
		}
	};
	EXPECT_EQ(Failure(Entry("d", "update", "p.sqlitediff"), {{"p.sqlitediff", ""}}),
	    "File " + Installed("d") + " digest check fail");
}

TEST_F(PatcherTest, PatchesNoInstalledLink) {
	WriteFile(directory_ / "outside", "old");
	fs::create_symlink(directory_ / "outside", Installed("link"));
	const std::map<std::string, std::string> files = {{"p.vcdiff", ""}, {"p.sqlitediff", ""}};
	EXPECT_EQ(Failure(Entry("link", "update", "p.vcdiff"), files), "Not a regular file: " + Copy("link"));
	fs::remove(Copy("link"));
	EXPECT_EQ(Failure(Entry("link", "update", "p.sqlitediff"), files), "Not a regular file: " + Copy("link"));
	ASSERT_EQ(mkfifo(Installed("fifo").c_str(), 0600), 0);
	EXPECT_THAT(Failure(Entry("fifo", "update", "p.vcdiff"), files), StartsWith("Fail to copy from "));
	EXPECT_EQ(ReadFile(directory_ / "outside"), "old");
}

TEST_F(PatcherTest, PassesOnWhatTheDecoderThrows) {
	WriteFile(Installed("f"), "old");
	decoder_ = [](const std::string&, const std::string&, const std::string&) { throw UpdateError("broken patch"); };
	EXPECT_EQ(Failure(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", ""}}), "broken patch");
	EXPECT_EQ(ReadFile(Copy("f")), "old");
	EXPECT_THAT(Operations(), IsEmpty());
}

TEST_F(PatcherTest, FailsWithoutTheDecodersOutput) {
	WriteFile(Installed("f"), "old");
	decoder_ = [](const std::string&, const std::string&, const std::string&) {};
	EXPECT_THAT(Failure(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", ""}}),
	    StartsWith("Fail to copy from " + Copy("f.patchout") + " to " + Copy("f") + ": "));
}

TEST_F(PatcherTest, SaysThatPermissionsCannotBeKept) {
	WriteFile(Installed("f"), "old");
	decoder_ = [](const std::string& source, const std::string& output, const std::string&) {
		WriteFile(output, "new");
		fs::remove(source);
		fs::create_symlink(source, source);
	};
	EXPECT_THAT(
	    Failure(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", ""}}), StartsWith("Fail to keep permissions: "));
}

TEST_F(PatcherTest, SaysThatTheDecodersOutputCannotBeRemoved) {
	WriteFile(Installed("f"), "old");
	decoder_ = [](const std::string&, const std::string& output, const std::string&) { fs::create_directory(output); };
	EXPECT_EQ(Failure(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", ""}}), "Failt to delete " + Copy("f.patchout"));
}

TEST_F(PatcherTest, KeepsTheInstalledFilesPermissions) {
	WriteFile(Installed("f"), "old");
	fs::permissions(Installed("f"), fs::perms(0640));
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", ""}});
	EXPECT_EQ(fs::status(Copy("f")).permissions(), fs::perms(0640));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_EQ(fs::status(Installed("f")).permissions(), fs::perms(0640));
}

TEST_F(PatcherTest, ChangesDatabasesByScripts) {
	SQLite::Database(Installed("d"), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec("CREATE TABLE t(a)");
	Apply(Entry("d", "update", "p.sqlitediff"), {{"p.sqlitediff", "INSERT INTO t VALUES(1);\n"}});
	Apply(Entry("d", "update", "p.sqlitediff"), {{"p.sqlitediff", "INSERT INTO t VALUES(2);\n"}});
	EXPECT_EQ(SQLite::Database(Installed("d")).execAndGet("SELECT count(*) FROM t").getInt(), 0);
	EXPECT_THAT(Failure(Entry("d", "update", "p.sqlitediff"), {{"p.sqlitediff", "DELETE FROM t;\nCOMMIT;\n"}}),
	    StartsWith("Fail apply sql cmd: "));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_EQ(SQLite::Database(Installed("d")).execAndGet("SELECT group_concat(a) FROM t").getString(), "1,2");
}

TEST_F(PatcherTest, RunsNoScriptOnAFileThatItsRecordTellsApart) {
	WriteFile(Installed("d"), "changed");
	WriteFile(Installed("f"), "changed");
	patcher_ = Patcher(directory_ / "sum", directory_ / "db", decoder_,
	    Known({{"d", std::string(96, '0')}, {"f", std::string(96, '0')}}));
	EXPECT_EQ(Failure(Entry("d", "update", "p.sqlitediff"), {{"p.sqlitediff", ""}}),
	    "File " + Installed("d") + " digest check fail");
	Apply(Entry("f", "update", "p.vcdiff"), {{"p.vcdiff", "!"}}); // A patch knows its file itself.
	EXPECT_EQ(ReadFile(Copy("f")), "changed!");
}

TEST_F(PatcherTest, InstallsIntoNewDirectories) {
	Apply(Entry("new/deep/f", "create", "in"), {{"in", "content"}});
	EXPECT_THAT(EntriesBelow(Installed("")), IsEmpty());
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_EQ(ReadFile(Installed("new/deep/f")), "content");
}

TEST_F(PatcherTest, LeavesOtherFilesAndEmptiedDirectories) {
	WriteFile(Installed("other"), "old");
	WriteFile(Installed("sub/gone"), "old");
	Apply(Entry("sub/gone", "delete") + "," + Entry("never/was", "delete"));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("other", "sub"));
}

TEST_F(PatcherTest, ReplacesLinksNotWhatTheyLeadTo) {
	WriteFile(directory_ / "outside", "old");
	fs::create_symlink(directory_ / "outside", Installed("link"));
	fs::create_symlink("nowhere", Installed("dangling"));
	fs::create_symlink("nowhere", Installed("gone"));
	Apply(Entry("link", "create", "in") + "," + Entry("dangling", "create", "in") + "," + Entry("gone", "delete"),
	    {{"in", "new"}});
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("link", "dangling"));
	EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Installed("link"))));
	EXPECT_EQ(ReadFile(Installed("dangling")), "new");
	EXPECT_EQ(ReadFile(directory_ / "outside"), "old");
}

TEST_F(PatcherTest, TurnsAFileIntoADirectoryAndBack) {
	WriteFile(Installed("a"), "file");
	WriteFile(Installed("b/c/d"), "old");
	WriteFile(Installed("b/e"), "old");
	fs::create_directories(Installed("b/empty/deep"));
	Apply(Entry("a", "delete") + "," + Entry("a/f", "create", "in") + "," + Entry("b", "create", "in") + "," +
	          Entry("b/c/d", "delete") + "," + Entry("b/e", "delete"),
	    {{"in", "new"}});
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a", "a/f", "b"));
	EXPECT_EQ(ReadFile(Installed("a/f")), "new");
	EXPECT_EQ(ReadFile(Installed("b")), "new");
}

TEST_F(PatcherTest, KeepsADirectoryThatWasAFileOnTheWay) {
	WriteFile(Installed("a/f"), "old");
	WriteFile(Installed("a/gone"), "old");
	Apply(Entry("a/f", "delete") + "," + Entry("a/gone", "delete") + "," + Entry("a", "create", "in"), {{"in", "x"}});
	Apply(Entry("a", "delete") + "," + Entry("a/f", "create", "in"), {{"in", "new"}});
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a", "a/f"));
	EXPECT_EQ(ReadFile(Installed("a/f")), "new");
}

TEST_F(PatcherTest, RemovesNoDirectoryWithFilesThatItDoesNotKnow) {
	WriteFile(Installed("b/unknown"), "precious");
	Apply(Entry("b", "create", "in"), {{"in", "new"}});
	EXPECT_ANY_THROW(patcher_.Install(patcher_.CheckedChanges()));
	EXPECT_EQ(ReadFile(Installed("b/unknown")), "precious");
}

TEST_F(PatcherTest, RemovesDirectoriesThatAreDeletedWithAllThatIsInThem) {
	for (const char* name : {"a/f", "a/b/g", "a/b/c/h", "a-b/kept", "other"}) {
		WriteFile(Installed(name), "old");
	}
	fs::create_directories(Installed("a/b/empty"));
	Apply(Entry("a", "delete") + "," + Entry("a/b", "delete") + "," + Entry("a/b/c", "delete") + "," +
	      Entry("a/b/c/h", "delete") + "," + Entry("a/b/g", "delete") + "," + Entry("a/f", "delete"));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a-b", "a-b/kept", "other"));
}

TEST_F(PatcherTest, KeepsADeletedDirectoryForFilesThatItDoesNotKnowAndGoesOn) {
	WriteFile(Installed("a/b/gone"), "old");
	WriteFile(Installed("a/b/unknown"), "precious");
	WriteFile(Installed("a/c/gone"), "old");
	Apply(Entry("a", "delete") + "," + Entry("a/b", "delete") + "," + Entry("a/b/gone", "delete") + "," +
	          Entry("a/c", "delete") + "," + Entry("a/c/gone", "delete") + "," + Entry("z", "create", "in"),
	    {{"in", "new"}});
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a", "a/b", "a/b/unknown", "z"));
	EXPECT_EQ(ReadFile(Installed("a/b/unknown")), "precious");
}

TEST_F(PatcherTest, KeepsADeletedDirectoryInWhichALaterPackageMakesAFile) {
	WriteFile(Installed("a/b/gone"), "old");
	Apply(Entry("a", "delete") + "," + Entry("a/b", "delete") + "," + Entry("a/b/gone", "delete"));
	Apply(Entry("a/b/new", "create", "in"), {{"in", "new"}});
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a", "a/b", "a/b/new"));
	Apply(Entry("a/b/new", "delete") + "," + Entry("a/b", "delete") + "," + Entry("a", "delete"));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), IsEmpty());
}

TEST_F(PatcherTest, RemovesALinkInADeletedDirectorysPlaceAlone) {
	WriteFile(directory_ / "outside/f", "precious");
	fs::create_directory_symlink(directory_ / "outside", Installed("a"));
	Apply(Entry("a", "delete") + "," + Entry("a/f", "delete"));
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), IsEmpty());
	EXPECT_EQ(ReadFile(directory_ / "outside/f"), "precious");
}

TEST_F(PatcherTest, LeavesForLaterWhatItReplacesAndDeletes) {
	WriteFile(Installed("f"), "old");
	WriteFile(Installed("gone"), "deleted");
	Apply(Entry("f", "create", "in") + ", " + Entry("gone", "delete"), {{"in", "new"}});
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_THAT(EntriesBelow(Installed("")), testing::ElementsAre("f"));
	EXPECT_EQ(ReadFile(Installed("f")), "new");
	EXPECT_EQ(ReadFile(Copy("f")), "old");
	EXPECT_EQ(ReadFile(Copy("gone.gone")), "deleted");
}

TEST_F(PatcherTest, CopiesBetweenFileSystems) {
	Apply(Entry("f", "create", "in"), {{"in", "new"}});
	system_.Fail("renameat2", EXDEV);
	system_.Fail("linkat", EXDEV);
	patcher_.Install(patcher_.CheckedChanges());
	EXPECT_EQ(ReadFile(Installed("f")), "new");
	EXPECT_EQ(fs::hard_link_count(Installed("f")), 1U);
}

} // namespace
} // namespace tarn::dataupdate
