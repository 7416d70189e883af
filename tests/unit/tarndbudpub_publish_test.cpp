// What a repository holds after publishing, after refusals and after publishers that were killed.
#include "base/document_limit.h"
#include "base/unique_fd.h"
#include "publisher/packages/package.h"
#include "publisher_fixture.h"

#include <climits>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <future>
#include <thread>

namespace tarn::test {

namespace {

using Files = std::map<std::string, std::string>;

class Publishing : public PublisherTest {
protected:
	Publishing() {
		Put("a", "one");
		Put("d/b", "two");
	}
};

TEST_F(Publishing, MakesAPackageThatInstallsAsTheTree) {
	const std::string large = std::string(2'000'000, 'x') + "end";
	Put("large", large);
	const publisher::PublishResult result = Publish();
	EXPECT_EQ(InstalledFrom(Package(1)), (Files{{"a", "one"}, {"d/b", "two"}, {"large", large}}));
	EXPECT_EQ(result.data_version, 1);
	EXPECT_EQ(result.files, 3U);
	EXPECT_EQ(result.tree_size, large.size() + 6);
	EXPECT_EQ(result.package_size, fs::file_size(Package(1)));
	EXPECT_EQ(result.download_link, "http://updates.example/base/packages/db/db_v1.tarn");
}

TEST_F(Publishing, WritesTheDocumentThatDevicesRead) {
	const FixedTime time("1700000000");
	Publish();
	const Json::Value document = Document();
	EXPECT_EQ(document.getMemberNames(), (std::vector<std::string>{"db_list", "deprecated"}));
	EXPECT_EQ(document["deprecated"], Json::Value(false));
	const Json::Value& entry = document["db_list"]["db"];
	EXPECT_EQ(entry["data_version"], Json::Value("1"));
	EXPECT_EQ(entry["last_fetch_time"], Json::Value(1700000000));
	EXPECT_EQ(entry["deprecated"], Json::Value(false));
	EXPECT_EQ(entry["download_link"], Json::Value("http://updates.example/base/packages/db/db_v1.tarn"));
	EXPECT_EQ(entry["diff_files"], Json::Value(Json::objectValue));
	EXPECT_EQ(entry.size(), 5U);
	EXPECT_THAT(RepositoryFiles(), ElementsAre("database_info/1", "packages/db/db_v1.tarn"));
}

TEST_F(Publishing, TakesTheTimeOfNowUnlessTold) {
	const std::int64_t before = time(nullptr);
	Publish();
	const std::int64_t fetched = Document()["db_list"]["db"]["last_fetch_time"].asInt64();
	EXPECT_GE(fetched, before);
	EXPECT_LE(fetched, time(nullptr));
	for (const char* bad : {"soon", "", "12x", "-1", "2147483648"}) {
		const FixedTime time(bad);
		EXPECT_NE(PublishError(), "") << bad;
	}
	const FixedTime last("2147483647");
	EXPECT_EQ(PublishError(), "");
}

TEST_F(Publishing, IsReadableByTheWebServerWhateverTheUmask) {
	const mode_t before = umask(0077);
	Publish();
	umask(before);
	struct stat status {};
	for (const std::string& path : {Package(1), options_.repository + "/database_info/1"}) {
		ASSERT_EQ(stat(path.c_str(), &status), 0);
		EXPECT_EQ(status.st_mode & 07777U, 0644U) << path;
	}
	for (const char* directory : {"", "/database_info", "/packages", "/packages/db"}) {
		ASSERT_EQ(stat((options_.repository + directory).c_str(), &status), 0);
		EXPECT_EQ(status.st_mode & 07777U, 0755U) << directory;
	}
}

TEST_F(Publishing, NeedsNoRightToReadWhatLiesAboveTheRepository) {
	constexpr uid_t kSomebody = 12345;
	if (geteuid() != 0) {
		GTEST_SKIP() << "only root can become another user";
	}
	const fs::path above = directory_ / "above";
	options_.repository = above / "repo";
	fs::create_directories(options_.repository);
	fs::permissions(directory_.Path(), fs::perms(0755));
	fs::permissions(above, fs::perms(0711));
	const int given = chown(options_.repository.c_str(), kSomebody, kSomebody) |
	                  chown(options_.key_file.c_str(), kSomebody, kSomebody);
	if (given != 0) {
		GTEST_SKIP() << "this namespace has one user only";
	}
	const pid_t child = fork();
	if (child == 0) {
		const bool is_other = setresgid(kSomebody, kSomebody, kSomebody) == 0 &&
		                      setresuid(kSomebody, kSomebody, kSomebody) == 0 && access(above.c_str(), R_OK) != 0;
		_exit(is_other && PublishError().empty() ? 0 : 1);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(Document()["db_list"]["db"]["data_version"].asString(), "1");
}

TEST_F(Publishing, CountsVersionsUpByOne) {
	EXPECT_EQ(Publish().data_version, 1);
	EXPECT_EQ(Publish().data_version, 2);
	options_.data_version = 7;
	EXPECT_EQ(Publish().data_version, 7);
	options_.data_version.reset();
	EXPECT_EQ(Publish().data_version, 8);
	EXPECT_EQ(Document()["db_list"]["db"]["data_version"].asString(), "8");
	EXPECT_THAT(RepositoryFiles(), ElementsAre("database_info/1", "packages/db/db_v1.tarn", "packages/db/db_v2.tarn",
	                                   "packages/db/db_v7.tarn", "packages/db/db_v8.tarn"));
}

TEST_F(Publishing, RefusesAVersionThatIsNotAboveTheLast) {
	options_.data_version = 5;
	Publish();
	const std::string package = ReadFile(Package(5));
	for (const int version : {5, 4, 0}) {
		options_.data_version = version;
		EXPECT_THAT(PublishError(), HasSubstr("is not above version 5"));
	}
	EXPECT_EQ(ReadFile(Package(5)), package);
	EXPECT_EQ(Document()["db_list"]["db"]["data_version"].asString(), "5");
}

TEST_F(Publishing, ReachesTheLargestVersionAndNoFurther) {
	options_.data_version = INT_MAX;
	EXPECT_EQ(Publish().data_version, INT_MAX);
	options_.data_version.reset();
	EXPECT_THAT(PublishError(), HasSubstr("is above 2147483647"));
	options_.id = "other";
	options_.data_version = 0;
	EXPECT_EQ(Publish().data_version, 0);
}

TEST_F(Publishing, NeverReplacesAPackageThatAnotherDocumentNames) {
	Publish();
	const std::string package = ReadFile(Package(1));
	options_.db_version = "2";
	Put("a", "changed");
	EXPECT_EQ(Publish().data_version, 2);
	EXPECT_EQ(ReadFile(Package(1)), package);
	EXPECT_EQ(Document("1")["db_list"]["db"]["data_version"].asString(), "1");
	EXPECT_EQ(Document("2")["db_list"]["db"]["data_version"].asString(), "2");
}

TEST_F(Publishing, KeepsAllElseThatTheDocumentHolds) {
	WriteFile(options_.repository + "/database_info/1",
	    R"({"deprecated": true, "extra": [1], "db_list": {"other": {"anything": "kept"},
			"db": {"data_version": "3", "last_fetch_time": 1, "deprecated": true, "download_link": "x",
				"diff_files": {"3": {"download_link": "y", "file_size": 1}}, "note": "kept"}}})");
	EXPECT_EQ(Publish().data_version, 4);
	const Json::Value document = Document();
	EXPECT_EQ(document["deprecated"], Json::Value(true));
	EXPECT_EQ(document["extra"][0], Json::Value(1));
	EXPECT_EQ(document["db_list"]["other"]["anything"], Json::Value("kept"));
	EXPECT_EQ(document["db_list"]["db"]["deprecated"], Json::Value(true));
	EXPECT_EQ(document["db_list"]["db"]["note"], Json::Value("kept"));
	EXPECT_EQ(document["db_list"]["db"]["diff_files"], Json::Value(Json::objectValue));
	options_.id = "third";
	EXPECT_EQ(Publish().data_version, 1);
	EXPECT_EQ(Document()["db_list"].getMemberNames(), (std::vector<std::string>{"db", "other", "third"}));
}

TEST_F(Publishing, UsesUpNoVersionForADocumentThatDevicesWouldNotRead) {
	Publish();
	const std::string path = options_.repository + "/database_info/1";
	Json::Value document = Document();
	document["extra"] = std::string(kLargestDocument, 'x');
	WriteFile(path, document.toStyledString());
	EXPECT_THAT(PublishError(), AllOf(HasSubstr("The document " + path + " is left as it is: its 2"),
	                                HasSubstr(" are more than the 2097152 that devices read")));
	EXPECT_TRUE(Document() == document);
	EXPECT_THAT(RepositoryFiles(), ElementsAre("database_info/1", "packages/db/db_v1.tarn"));
	document["extra"] = std::string(kLargestDocument / 2, 'x');
	WriteFile(path, document.toStyledString());
	EXPECT_EQ(Publish().data_version, 2);
}

TEST_F(Publishing, LeavesADocumentAloneThatItCannotRead) {
	const std::string deep = std::string(5000, '[') + std::string(5000, ']');
	for (const std::string& text : {std::string("no json"), std::string("[]"), std::string("{}"), deep, std::string(),
	         std::string(R"({"db_list": []})"), std::string(R"({"db_list": {"db": 1}})"),
	         std::string(R"({"db_list": {"db": {"data_version": 1}}})"),
	         std::string(R"({"db_list": {"db": {"data_version": "1x"}}})"),
	         std::string(R"({"db_list": {"db": {"data_version": "-1"}}})")}) {
		WriteFile(options_.repository + "/database_info/1", text);
		EXPECT_THAT(PublishError(), HasSubstr(options_.repository + "/database_info/1")) << text.substr(0, 40);
		EXPECT_EQ(ReadFile(options_.repository + "/database_info/1"), text);
		EXPECT_FALSE(fs::exists(Package(1)));
	}
	WriteFile(options_.repository + "/database_info/1", R"({"db_list": {}})");
	EXPECT_EQ(PublishError(), "");
}

TEST_F(Publishing, GivesTheSameBytesForTheSameTree) {
	const FixedTime time("1700000000");
	Put("d/executable", "#!/bin/sh\n");
	fs::permissions(options_.tree + "/d/executable", fs::perms(0711));
	Publish();
	const std::string first = ReadFile(Package(1));
	fs::copy(options_.tree, directory_ / "copy", fs::copy_options::recursive); // other times, other order of entries
	fs::permissions(directory_ / "copy/a", fs::perms(0600));
	options_.tree = directory_ / "copy";
	options_.repository = directory_ / "repo2";
	options_.url = "https://elsewhere.example";
	Publish();
	EXPECT_EQ(ReadFile(Package(1)), first);
	options_.data_version = 2;
	Publish();
	EXPECT_NE(ReadFile(Package(2)), first);
}

TEST_F(Publishing, SignsTheTimeThatTheDocumentNames) {
	const FixedTime time("1700000000");
	Publish();
	const Json::Value metadata = publisher::ReadMetadata(archive::ArchiveFile(Package(1)));
	EXPECT_EQ(metadata["published"], Json::Value(1700000000));
	EXPECT_EQ(metadata["published"], Document()["db_list"]["db"]["last_fetch_time"]);
}

TEST_F(Publishing, WarnsWhenTheVersionStandsElsewhereInTheLink) {
	options_.url = "http://10.0.0.1:8080";
	Publish();
	ASSERT_EQ(warnings_.size(), 1U);
	EXPECT_THAT(warnings_[0], HasSubstr("http://10.0.0.1:8080/packages/db/db_v1.tarn"));
	warnings_.clear();
	Publish();
	EXPECT_THAT(warnings_, IsEmpty());
	options_.data_version = 8;
	Publish();
	EXPECT_EQ(warnings_.size(), 1U);
}

TEST_F(Publishing, LeavesOutTheSlashAtTheEndOfTheBase) {
	options_.url = "https://updates.example/";
	EXPECT_EQ(Publish().download_link, "https://updates.example/packages/db/db_v1.tarn");
}

TEST_F(Publishing, SetsFilesAsideThatAKilledPublisherLeft) {
	Publish();
	for (const char* name : {"packages/db/.tarndbudpub-db_v2.tarn.part", "packages/db/.tarndbudpub-payload-abc.part",
	         "database_info/.tarndbudpub-1.part", "packages/.tarndbudpub-.tarndbudpub.url.part"}) {
		WriteFile(options_.repository + "/" + name, "left behind");
	}
	EXPECT_EQ(Publish().data_version, 2);
	EXPECT_EQ(InstalledFrom(Package(2)), (Files{{"a", "one"}, {"d/b", "two"}}));
	EXPECT_THAT(RepositoryFiles(), ElementsAre("database_info/1", "packages/db/db_v1.tarn", "packages/db/db_v2.tarn"));
}

TEST_F(Publishing, LeavesTheOldStateWhenItIsKilledWhilePacking) {
	Publish();
	const std::string document = ReadFile(options_.repository + "/database_info/1");
	Put("a", "changed");
	const bool killed = IsKilled([this] {
		observer_.progress = [](std::uint64_t files, std::uint64_t /*bytes*/, const publisher::Tree& /*tree*/) {
			if (files == 1) {
				raise(SIGKILL);
			}
		};
		Publish();
	});
	ASSERT_TRUE(killed);
	EXPECT_EQ(ReadFile(options_.repository + "/database_info/1"), document);
	EXPECT_FALSE(fs::exists(Package(2)));
	EXPECT_EQ(Publish().data_version, 2);
	EXPECT_EQ(InstalledFrom(Package(2)).at("a"), "changed");
	EXPECT_THAT(RepositoryFiles(), ElementsAre("database_info/1", "packages/db/db_v1.tarn", "packages/db/db_v2.tarn"));
}

TEST_F(Publishing, ServesAWholeStateWhenItIsKilledAtAnyMoment) {
	Put("random", std::string(200'000, 'r'));
	options_.level = archive::kMinLevel;
	Publish();
	int killed = 0;
	for (int moment = 0; moment < 40; ++moment) {
		killed += IsKilledAfter(moment * 200, [this] { Publish(); }) ? 1 : 0;
		const int version = std::stoi(Document()["db_list"]["db"]["data_version"].asString());
		ASSERT_EQ(InstalledFrom(Package(version)).size(), 3U) << "moment " << moment;
	}
	EXPECT_GT(killed, 0);
	const int last = Publish().data_version;
	EXPECT_EQ(std::to_string(last), Document()["db_list"]["db"]["data_version"].asString());
	for (const std::string& name : RepositoryFiles()) {
		EXPECT_EQ(name.find(".part"), std::string::npos) << name;
	}
}

TEST_F(Publishing, WaitsForAnotherPublisher) {
	Publish();
	UniqueFd held(open((options_.repository + "/.tarndbudpub.lock").c_str(), O_RDWR | O_CLOEXEC));
	ASSERT_EQ(flock(held.Get(), LOCK_EX), 0);
	std::promise<void> waiting;
	observer_.waiting = [&waiting] { waiting.set_value(); };
	std::thread other([this] { Publish(); });
	waiting.get_future().wait();
	EXPECT_EQ(Document()["db_list"]["db"]["data_version"].asString(), "1");
	held = UniqueFd();
	other.join();
	EXPECT_EQ(Document()["db_list"]["db"]["data_version"].asString(), "2");
}

TEST_F(Publishing, LosesNothingWhenManyPublishAtOnce) {
	constexpr int kPublishers = 6;
	std::vector<pid_t> children;
	for (int i = 0; i < kPublishers; ++i) {
		children.push_back(fork());
		if (children.back() == 0) {
			options_.id = "db" + std::to_string(i % 3);
			_exit(PublishError().empty() ? 0 : 1);
		}
	}
	for (const pid_t child : children) {
		int status = 0;
		ASSERT_EQ(waitpid(child, &status, 0), child);
		EXPECT_EQ(status, 0);
	}
	for (const char* id : {"db0", "db1", "db2"}) {
		EXPECT_EQ(Document()["db_list"][id]["data_version"].asString(), "2") << id;
	}
}

} // namespace

} // namespace tarn::test
