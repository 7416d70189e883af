// Where members may go and what may become of them, in archives that are signed by a trusted key all the same.
#include "base/error.h"
#include "codesign_archives.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <ostream>

namespace tarn::test {

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Tree = std::map<std::string, std::string>;

unsigned ModeOf(const std::string& path) {
	struct stat status {};
	EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
	return status.st_mode & 07777U;
}

using ArchiveExtract = ArchiveTest;

TEST_F(ArchiveExtract, WritesFilesDirectoriesAndLinks) {
	Install(Seal({Directory("d"), File("d/f", "one"), File("d/empty", ""), Symlink("d/e/l", "../f"),
	    HardLink("h", "d/f"), File("./x//y", "two"), Symlink("s", "d")}));
	EXPECT_EQ(Installed(), (Tree{{"d", "/"}, {"d/f", "one"}, {"d/empty", ""}, {"d/e", "/"}, {"d/e/l", "-> ../f"},
	                           {"h", "one"}, {"s", "-> d"}, {"x", "/"}, {"x/y", "two"}}));
	EXPECT_TRUE(fs::equivalent(directory_ / "out/h", directory_ / "out/d/f"));
}

TEST_F(ArchiveExtract, SetsSafeModesWhateverTheUmask) {
	const mode_t before = umask(0077);
	const std::string error = InstallError(Seal({WithMode(Directory("d"), 0700), WithMode(File("d/f"), 0666),
	    WithMode(File("d/x"), 0701), WithMode(File("d/none"), 0)}));
	umask(before);
	EXPECT_EQ(error, "");
	EXPECT_EQ(ModeOf(directory_ / "out/d"), 0755U);
	EXPECT_EQ(ModeOf(directory_ / "out/d/f"), 0644U);
	EXPECT_EQ(ModeOf(directory_ / "out/d/x"), 0755U);
	EXPECT_EQ(ModeOf(directory_ / "out/d/none"), 0644U);
}

TEST_F(ArchiveExtract, WritesFilesOfSeveralBlocksAndChunksWhole) {
	const std::string large = RandomBytes(5'000'001, 3);
	const std::string zeros(3'000'000, '\0');
	Install(Seal({File("large", large), File("small", "x"), File("zeros", zeros)}));
	EXPECT_TRUE(Installed().at("large") == large);
	EXPECT_TRUE(Installed().at("zeros") == zeros);
	EXPECT_EQ(Installed().at("small"), "x");
}

TEST_F(ArchiveExtract, KeepsNamesThatAreLongOrNotAscii) {
	const std::string name = "d/" + std::string(200, 'n') + "/" + std::string(255, 'm');
	std::vector<TarMember> members = LongNamed(name, "long");
	members.push_back(File("caf\xc3\xa9", "text"));
	Install(Seal(members));
	EXPECT_EQ(Installed().at(name), "long");
	EXPECT_EQ(Installed().at("caf\xc3\xa9"), "text");
}

TEST_F(ArchiveExtract, ReplacesWhatAnEarlierArchiveLeftAndKeepsTheRest) {
	Install(Seal({File("a", "old"), File("b", "kept"), Symlink("l", "b"), Directory("d")}));
	Install(Seal({File("a", "new"), File("l", "file now"), File("d", "file now")}));
	EXPECT_EQ(Installed(), (Tree{{"a", "new"}, {"b", "kept"}, {"l", "file now"}, {"d", "file now"}}));
}

TEST_F(ArchiveExtract, MakesADirectoryWhereAFileWas) {
	Install(Seal({File("a", "old")}));
	Install(Seal({Directory("a"), File("a/b", "new")}));
	EXPECT_EQ(Installed(), (Tree{{"a", "/"}, {"a/b", "new"}}));
}

TEST_F(ArchiveExtract, NeverReplacesADirectoryThatHoldsSomething) {
	Install(Seal({File("d/f", "kept")}));
	EXPECT_THAT(InstallError(Seal({File("d")})), HasSubstr("member \"d\" cannot replace what is there"));
	EXPECT_EQ(Installed(), (Tree{{"d", "/"}, {"d/f", "kept"}}));
}

TEST_F(ArchiveExtract, ReplacesALinkInsteadOfWritingThroughIt) {
	fs::create_symlink(directory_ / "outside/secret", directory_ / "out/s");
	fs::create_hard_link(directory_ / "outside/secret", directory_ / "out/h");
	Install(Seal({File("s", "new"), File("h", "new")}));
	EXPECT_EQ(Installed(), (Tree{{"s", "new"}, {"h", "new"}}));
	ExpectOutsideUntouched();
}

TEST_F(ArchiveExtract, PassesThroughNoLinkThatWasThereBefore) {
	fs::create_directory_symlink(directory_ / "outside", directory_ / "out/d");
	EXPECT_THAT(InstallError(Seal({File("d/planted")})), HasSubstr("passes through \"d\", which is no directory"));
	EXPECT_THAT(InstallError(Seal({Directory("d/planted")})), HasSubstr("passes through \"d\""));
	EXPECT_THAT(InstallError(Seal({Symlink("d/planted", "x")})), HasSubstr("passes through \"d\""));
	EXPECT_THAT(InstallError(Seal({HardLink("stolen", "d/secret")})), HasSubstr("passes through \"d\""));
	ExpectOutsideUntouched();
	fs::remove(directory_ / "out/d");
	EXPECT_EQ(InstallError(Seal({File("d/planted")})), "");
}

TEST_F(ArchiveExtract, PassesThroughNoLinkThatAnEarlierArchivePlanted) {
	Install(Seal({Directory("inside"), Symlink("d", "inside")}));
	EXPECT_THAT(InstallError(Seal({File("d/f")})), HasSubstr("member \"d/f\" passes through \"d\""));
	EXPECT_EQ(Installed(), (Tree{{"inside", "/"}, {"d", "-> inside"}}));
	Install(Seal({Directory("d"), File("d/f")}));
	EXPECT_EQ(Installed(), (Tree{{"inside", "/"}, {"d", "/"}, {"d/f", "content"}}));
}

TEST_F(ArchiveExtract, ExtractsOnlyTheNamedMembers) {
	const std::string path = Seal({File("a", "1"), File("d/b", "2"), File("d/c", "3")});
	const archive::ArchiveFile archive(path);
	const UniqueFd out(open((directory_ / "out").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	archive::Extract(archive, out.Get(), {"d/c", "./a"});
	EXPECT_EQ(Installed(), (Tree{{"a", "1"}, {"d", "/"}, {"d/c", "3"}}));
	EXPECT_THROW(archive::Extract(archive, out.Get(), {"a", "missing"}), Error);
}

struct Refusal {
	std::string label;
	std::vector<TarMember> members;
	std::string reason;
	std::vector<TarMember> mended; // the same without the fault
};

// Without it the list of tests would name each by its bytes in memory, different in every run.
void PrintTo(const Refusal& refusal, std::ostream* out) {
	*out << refusal.label;
}

class ArchiveRefusal : public ArchiveTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(ArchiveRefusal, NamesTheMemberAndLeavesTheOutsideAlone) {
	const Refusal& refusal = GetParam();
	const std::string error = InstallError(Seal(refusal.members));
	EXPECT_THAT(error, HasSubstr(refusal.reason));
	EXPECT_THAT(error, HasSubstr("member \"" + refusal.members.back().name + "\""));
	ExpectOutsideUntouched();
	EXPECT_FALSE(fs::exists(directory_ / "evil"));
	EmptyDestination();
	EXPECT_EQ(InstallError(Seal(refusal.mended)), "");
}

INSTANTIATE_TEST_SUITE_P(Names, ArchiveRefusal,
    ::testing::Values(Refusal{"DotDot", {File("../evil")}, "leads out by \"..\"", {File("evil")}},
        Refusal{"DotDotWithin", {File("a/../b")}, "leads out by \"..\"", {File("a/b")}},
        Refusal{"DotDotAtTheEnd", {Directory("a/..")}, "leads out by \"..\"", {Directory("a")}},
        Refusal{"Absolute", {File("/tmp/tarn-evil")}, "is absolute", {File("tmp/tarn-evil")}},
        Refusal{"DestinationAsFile", {File(".")}, "names the destination itself", {Directory("./"), File("x")}},
        Refusal{"FileAsDirectory", {File("a"), File("a/b")}, "passes through \"a\"", {File("a"), File("b")}}),
    [](const auto& test) { return test.param.label; });

INSTANTIATE_TEST_SUITE_P(Links, ArchiveRefusal,
    ::testing::Values(
        Refusal{"SymlinkUp", {Symlink("l", "../outside")}, "leads out by \"..\"", {Symlink("l", "outside")}},
        Refusal{"SymlinkUpTooOften", {Symlink("d/l", "../../outside")}, "leads out", {Symlink("d/l", "../outside")}},
        Refusal{"SymlinkUpLater", {Symlink("d/l", "x/../../../y")}, "leads out", {Symlink("d/l", "../x/y")}},
        Refusal{"SymlinkAbsolute", {Symlink("l", "/etc/passwd")}, "is absolute", {Symlink("l", "etc/passwd")}},
        Refusal{"SymlinkEmpty", {Symlink("l", "")}, "is empty", {Symlink("l", "x")}},
        Refusal{"ThroughOwnSymlink", {Directory("e"), Symlink("d", "e"), File("d/f")}, "passes through \"d\"",
            {Directory("e"), Symlink("d", "e"), File("e/f")}},
        Refusal{"HardLinkUp", {HardLink("h", "../outside/secret")}, "leads out", {File("f"), HardLink("h", "f")}},
        Refusal{"HardLinkAbsolute", {HardLink("h", "/etc/passwd")}, "is absolute", {File("f"), HardLink("h", "f")}},
        Refusal{"HardLinkToSymlink", {File("f"), Symlink("s", "f"), HardLink("h", "s")}, "something else",
            {File("f"), Symlink("s", "f"), HardLink("h", "f")}},
        Refusal{"HardLinkToDirectory", {Directory("d"), HardLink("h", "d")}, "something else",
            {File("d"), HardLink("h", "d")}},
        Refusal{"HardLinkToNothing", {File("g"), HardLink("h", "f")}, "cannot find its hard link's target",
            {File("f"), HardLink("h", "f")}},
        Refusal{"HardLinkBelowNothing", {File("f"), HardLink("h", "d/f")}, "does not exist",
            {File("d/f"), HardLink("h", "d/f")}},
        Refusal{"HardLinkToItself", {File("f"), HardLink("f", "f")}, "hard link to itself",
            {File("f"), HardLink("h", "f")}},
        Refusal{"HardLinkThroughSymlink", {File("e/f"), Symlink("d", "e"), HardLink("h", "d/f")},
            "passes through \"d\"", {File("e/f"), Symlink("d", "e"), HardLink("h", "e/f")}}),
    [](const auto& test) { return test.param.label; });

INSTANTIATE_TEST_SUITE_P(Kinds, ArchiveRefusal,
    ::testing::Values(Refusal{"CharacterDevice", {Special("n", '3')}, "is a device", {File("n")}},
        Refusal{"BlockDevice", {Special("n", '4')}, "is a device", {File("n")}},
        Refusal{"Fifo", {Special("n", '6')}, "a FIFO", {File("n")}},
        Refusal{"SetUserId", {WithMode(File("f"), 04755)}, "set-id", {WithMode(File("f"), 0755)}},
        Refusal{"SetGroupId", {WithMode(File("f"), 02755)}, "set-id", {WithMode(File("f"), 0755)}},
        Refusal{"SetGroupIdDirectory", {WithMode(Directory("d"), 02755)}, "set-id", {WithMode(Directory("d"), 0755)}},
        Refusal{"Sticky", {WithMode(File("f"), 01644)}, "sticky", {File("f")}},
        Refusal{"SetUserIdSymlink", {WithMode(Symlink("s", "x"), 04777)}, "set-id", {Symlink("s", "x")}}),
    [](const auto& test) { return test.param.label; });

TEST_F(ArchiveExtract, RefusesNamesLongerThanAPathMayBe) {
	std::string name;
	while (name.size() < PATH_MAX) {
		name += "a long component/";
	}
	EXPECT_THAT(InstallError(Seal(LongNamed(name + "f", "x"))), HasSubstr("is too long"));
	EXPECT_EQ(InstallError(Seal(LongNamed(name.substr(0, 2000) + "/f", "x"))), "");
}

TEST_F(ArchiveExtract, RefusesNamesOfMoreThan128Components) {
	const auto nested = [](int directories) {
		std::string name;
		for (int i = 0; i < directories; ++i) {
			name += i % 2 == 0 ? "d/" : "d/./";
		}
		return name;
	};
	EXPECT_EQ(InstallError(Seal(LongNamed(nested(127) + "f", "x"))), "");
	EmptyDestination();
	EXPECT_THAT(
	    InstallError(Seal(LongNamed(nested(128) + "f", "x"))), HasSubstr("has 129 components; the limit is 128"));
	EXPECT_THAT(InstallError(Seal(LongNamed(nested(1100) + "f", "x"))), HasSubstr("has 1101 components"));
	EXPECT_EQ(Installed(), Tree{});
}

TEST_F(ArchiveExtract, RefusesTheExtendedForm) {
	TarMember file = File("f");
	file.magic = kPosixMagic;
	EXPECT_THAT(
	    InstallError(Seal({{"x", 'x', "10 path=a\n", "", 0644, kGnuMagic}, file})), HasSubstr("extended (pax) form"));
	EXPECT_EQ(Installed(), Tree{});
	EXPECT_EQ(InstallError(Seal({file})), "");
}

TEST_F(ArchiveExtract, EndsANameAtItsFirstNulWhateverHidesBehindIt) {
	const std::string hidden("../../evil");
	Install(Seal({{"././@LongLink", 'L', std::string("long\0/", 6) + hidden, "", 0644, kGnuMagic}, File("f")}));
	Install(Seal({{"x", 'x', std::string("21 path=wide\0", 13) + "/../../\n", "", 0644, kGnuMagic}, File("g")}));
	EXPECT_EQ(Installed(), (Tree{{"long", "content"}, {"wide", "content"}}));
}

TEST_F(ArchiveExtract, RefusesAnEmptyName) {
	EXPECT_NE(InstallError(Seal({File("")})), "");
	EXPECT_EQ(Installed(), Tree{});
	EXPECT_EQ(InstallError(Seal({File("f")})), "");
}

TEST_F(ArchiveExtract, ShowsControlCharactersOfNamesHarmlessly) {
	EXPECT_THAT(InstallError(Seal({File("../a\x1b[31m\n")})), HasSubstr(R"("../a\x1b[31m\x0a")"));
}

} // namespace

} // namespace tarn::test
