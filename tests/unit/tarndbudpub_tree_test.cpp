// Which trees the publisher takes, and which it refuses because devices could not install them.
#include "base/unique_fd.h"
#include "diff_fixture.h"
#include "publisher/packages/tree.h"

#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>

namespace tarn::test {

namespace {

/** While it lives, permissions hold for this thread, and those that it starts, also where the tests run as root. */
class WithoutPrivilege {
public:
	WithoutPrivilege() {
		EXPECT_EQ(syscall(SYS_capget, &header_, before_.data()), 0);
		std::array<__user_cap_data_struct, 2> none = before_;
		for (__user_cap_data_struct& word : none) {
			word.effective = 0;
		}
		EXPECT_EQ(syscall(SYS_capset, &header_, none.data()), 0);
	}
	WithoutPrivilege(const WithoutPrivilege&) = delete;
	WithoutPrivilege& operator=(const WithoutPrivilege&) = delete;
	~WithoutPrivilege() { EXPECT_EQ(syscall(SYS_capset, &header_, before_.data()), 0); }

private:
	__user_cap_header_struct header_ = {_LINUX_CAPABILITY_VERSION_3, 0};
	std::array<__user_cap_data_struct, 2> before_ = {};
};

class PublishedTree : public PublisherTest {
protected:
	PublishedTree() { Put("good"); }

	std::vector<std::string> Names() const {
		std::vector<std::string> names;
		for (const publisher::TreeFile& file : publisher::ListTree(options_.tree).files) {
			names.push_back(file.name);
		}
		return names;
	}
	/** Publishing is refused with this text, leaves no trace, and works when the file is gone. */
	void ExpectRefused(const std::string& name, const std::string& reason) {
		const std::string error = PublishError();
		EXPECT_THAT(error, HasSubstr(reason));
		EXPECT_TRUE(RepositoryFiles().empty());
		fs::remove_all(options_.tree + "/" + name);
		EXPECT_EQ(PublishError(), "");
		fs::remove_all(options_.repository);
	}
	std::string InTree(const std::string& name) const { return options_.tree + "/" + name; }
};

TEST_F(PublishedTree, IsListedInByteOrderOfNames) {
	Put("b");
	Put("a/z");
	Put("a-b");
	Put("B");
	EXPECT_THAT(Names(), ElementsAre("B", "a-b", "a/z", "b", "good"));
}

TEST_F(PublishedTree, TakesALinkToAFileInsideAsTheFile) {
	Put("d/target", "text");
	fs::create_symlink("d/target", InTree("relative"));
	fs::create_symlink("relative", InTree("twice"));
	fs::create_symlink(InTree("good"), InTree("absolute"));
	Publish();
	EXPECT_EQ(
	    InstalledFrom(Package(1)), (std::map<std::string, std::string>{{"absolute", "content"}, {"d/target", "text"},
	                                   {"good", "content"}, {"relative", "text"}, {"twice", "text"}}));
}

TEST_F(PublishedTree, MayItselfBeReachedByALink) {
	fs::create_directory_symlink(options_.tree, directory_ / "link");
	options_.tree = directory_ / "link";
	EXPECT_THAT(Names(), ElementsAre("good"));
}

TEST_F(PublishedTree, HoldsNoLinksThatDevicesCouldNotInstall) {
	WriteFile(directory_ / "outside", "secret");
	fs::create_symlink(directory_ / "outside", InTree("out"));
	ExpectRefused("out", "\"out\" cannot be published: it is a symbolic link out of the tree");
	fs::create_symlink("../tree-neighbour", InTree("out"));
	WriteFile(directory_ / "tree-neighbour", "named almost like the tree");
	ExpectRefused("out", "\"out\" cannot be published: it is a symbolic link out of the tree");
	fs::create_symlink("nowhere", InTree("dangling"));
	ExpectRefused("dangling", "\"dangling\" cannot be published: it is a symbolic link that leads nowhere");
	fs::create_symlink("loop", InTree("loop"));
	ExpectRefused("loop", "leads nowhere");
	Put("d/f");
	fs::create_directory_symlink("d", InTree("to-directory"));
	ExpectRefused("to-directory", "\"to-directory\" cannot be published: it is a symbolic link to something else");
}

TEST_F(PublishedTree, HoldsOnlyFilesAndDirectories) {
	ASSERT_EQ(mkfifo(InTree("fifo").c_str(), 0600), 0);
	ExpectRefused("fifo", "\"fifo\" cannot be published: it is a device, a FIFO or a socket");
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	InTree("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
	const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	ASSERT_EQ(bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
	ExpectRefused("socket", "\"socket\" cannot be published");
	fs::create_symlink("/dev/null", InTree("device"));
	ExpectRefused("device", "out of the tree");
}

TEST_F(PublishedTree, HoldsNoNamesThatHooksOrStatusFilesCannotCarry) {
	Put("a:b");
	ExpectRefused("a:b", "\"a:b\" cannot be published: hooks get names separated by ':'");
	Put("a\nb");
	ExpectRefused("a\nb", R"("a\x0ab" cannot be published: hooks get names)");
	Put("d:e/f");
	ExpectRefused("d:e", "\"d:e/f\" cannot be published");
	for (const char* name : {"\xff", "caf\xe9", "\xc0\xaf", "\xed\xa0\x80", "cut\xc3"}) {
		Put(name);
		ExpectRefused(name, "its name is not valid UTF-8");
	}
	Put("caf\xc3\xa9 \xf0\x9f\x98\x80");
	EXPECT_EQ(PublishError(), "");
}

TEST_F(PublishedTree, HoldsNoNameThatIsTooLong) {
	const std::string component(250, 'c');
	std::string name = component;
	while (name.size() + 1 + component.size() <= publisher::kMaxNameLength) {
		name += "/" + component;
	}
	const std::string longest = name + "/" + std::string(publisher::kMaxNameLength - name.size() - 1, 'e');
	ASSERT_EQ(longest.size(), publisher::kMaxNameLength);
	Put(longest, "deep");
	Put(longest + "e", "too deep");
	ExpectRefused(longest + "e", "its name is longer than 3000 bytes");
	Publish();
	EXPECT_EQ(InstalledFrom(Package(1)).at(longest), "deep");
}

TEST_F(PublishedTree, IsNoDeeperThanDevicesInstall) {
	std::string name;
	for (int i = 0; i < 127; ++i) {
		name += "d/";
	}
	Put(name + "f", "deep");
	Publish();
	EXPECT_EQ(InstalledFrom(Package(1)).at(name + "f"), "deep");
	fs::remove_all(options_.repository);
	for (int i = 0; i < 1000; ++i) {
		name += "d/";
	}
	Put(name + "f", "too deep"); // Deeper than there are descriptors for.
	ExpectRefused("d", "cannot be published: its name has more than 128 components");
}

TEST_F(PublishedTree, HoldsAtLeastOneFile) {
	fs::remove(InTree("good"));
	fs::create_directory(InTree("empty"));
	EXPECT_THAT(PublishError(), HasSubstr("holds no files"));
	options_.tree = directory_ / "missing";
	EXPECT_THAT(PublishError(), HasSubstr("missing is no directory that can be read"));
	options_.tree = directory_ / "key.pub";
	EXPECT_THAT(PublishError(), HasSubstr("is no directory that can be read"));
}

TEST_F(PublishedTree, IsWarnedAboutOnceForAllEmptyDirectories) {
	fs::create_directories(InTree("e1"));
	fs::create_directories(InTree("d/e2"));
	Publish();
	EXPECT_THAT(warnings_, ElementsAre("The tree has 2 empty directories, which devices do not install."));
	EXPECT_EQ(InstalledFrom(Package(1)).size(), 1U);
}

TEST_F(PublishedTree, IsWarnedAboutOnceForAllDatabasesInWalMode) {
	for (const char* name : {"a", "b", "c", "d", "e"}) {
		ExecuteSql(InTree(name), "PRAGMA journal_mode = WAL; CREATE TABLE t(a)");
	}
	ExecuteSql(InTree("a"), "PRAGMA journal_mode = DELETE");
	Put("text", "SQLite format 3");
	Publish();
	EXPECT_THAT(warnings_, ElementsAre("Ordinary users cannot read databases in WAL mode on devices, unless they open "
	                                   "them with immutable=1: b, c, d and 1 more; execute PRAGMA "
	                                   "journal_mode=DELETE in each before publishing."));
}

TEST_F(PublishedTree, IsRefusedWhenAFileChangesWhileItIsRead) {
	Put("large", std::string(3'000'000, 'x'));
	const std::string path = InTree("large");
	bool changed = false;
	observer_.progress = [&](std::uint64_t /*files*/, std::uint64_t bytes, const publisher::Tree& /*tree*/) {
		if (bytes > 1'000'000 && !changed) {
			changed = true;
			std::ofstream(path, std::ios::app) << "more";
		}
	};
	EXPECT_THAT(PublishError(), HasSubstr("\"large\" changed while it was published"));
	changed = false;
	observer_.progress = [&](std::uint64_t /*files*/, std::uint64_t bytes, const publisher::Tree& /*tree*/) {
		if (bytes > 1'000'000 && !changed) {
			changed = true;
			fs::resize_file(path, 1'500'000);
		}
	};
	EXPECT_THAT(PublishError(), HasSubstr("\"large\" changed while it was published"));
	EXPECT_TRUE(RepositoryFiles().empty());
	observer_.progress = [](std::uint64_t /*files*/, std::uint64_t /*bytes*/, const publisher::Tree& /*tree*/) {};
	EXPECT_EQ(PublishError(), "");
}

TEST_F(PublishedTree, IsRefusedWhenAFileVanishesWhileItIsRead) {
	Put("a", "first");
	observer_.progress = [&](std::uint64_t /*files*/, std::uint64_t /*bytes*/, const publisher::Tree& /*tree*/) {
		fs::remove(InTree("good"));
	};
	EXPECT_EQ(PublishError(), "\"good\" vanished while it was read; publish a tree at rest.");
	EXPECT_TRUE(RepositoryFiles().empty());
}

TEST_F(PublishedTree, IsRefusedWhenItCannotBeRead) {
	const WithoutPrivilege like_anybody;
	Put("closed");
	fs::permissions(InTree("closed"), fs::perms::none);
	ExpectRefused("closed", "\"closed\" cannot be read");
	fs::create_directory(InTree("shut"));
	fs::permissions(InTree("shut"), fs::perms::none);
	EXPECT_THAT(PublishError(), HasSubstr("shut: Permission denied"));
	fs::permissions(InTree("shut"), fs::perms::owner_all);
	EXPECT_EQ(PublishError(), "");
}

TEST_F(PublishedTree, LiesApartFromTheRepository) {
	options_.repository = InTree("repo");
	EXPECT_THAT(PublishError(), HasSubstr("must not lie within each other"));
	EXPECT_FALSE(fs::exists(options_.repository));
	options_.repository = options_.tree;
	EXPECT_THAT(PublishError(), HasSubstr("must not lie within each other"));
	options_.repository = directory_.Path().string();
	EXPECT_THAT(PublishError(), HasSubstr("must not lie within each other"));
	options_.repository = directory_ / "tree-repo"; // begins alike, but lies beside
	EXPECT_EQ(PublishError(), "");
}

TEST_F(PublishedTree, LeavesThePrivateKeyOut) {
	const std::string key = options_.key_file;
	Put("a");
	fs::create_directories(options_.repository);
	for (const std::string& place : {options_.tree, options_.repository}) {
		fs::create_directories(place + "/keys");
		options_.key_file = place + "/keys/release.key";
		fs::copy(key, options_.key_file);
		EXPECT_THAT(PublishError(), HasSubstr("The private key " + options_.key_file + " lies in " + place));
		EXPECT_THAT(RepositoryFiles(), Not(Contains(StartsWith("packages/"))));
		fs::remove_all(place + "/keys");
	}
	options_.key_file = key;
	EXPECT_EQ(PublishError(), "");
}

} // namespace

} // namespace tarn::test
