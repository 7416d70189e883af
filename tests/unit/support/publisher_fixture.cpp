#include "publisher_fixture.h"

#include "archive/extractor.h"
#include "archive/signing_key.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace tarn::test {

Variable::Variable(const char* name, const std::string& value) : name_(name) {
	if (const char* before = getenv(name)) {
		before_ = before;
	}
	setenv(name, value.c_str(), 1);
}

Variable::~Variable() {
	if (before_) {
		setenv(name_, before_->c_str(), 1);
	} else {
		unsetenv(name_);
	}
}

PublisherTest::PublisherTest() {
	archive::GenerateKeyFiles(directory_ / "key");
	options_.tree = directory_ / "tree";
	options_.repository = directory_ / "repo";
	options_.id = "db";
	options_.key_file = directory_ / "key.key";
	options_.url = "http://updates.example/base";
	options_.keep_diffs = 0; // tests of diff packages ask for them
	observer_.warn = [this](const std::string& sentence) { warnings_.push_back(sentence); };
	fs::create_directory(options_.tree);
}

void PublisherTest::Put(const std::string& name, const std::string& content) {
	WriteFile(options_.tree + "/" + name, content);
}

publisher::PublishResult PublisherTest::Publish() {
	return publisher::Publish(options_, observer_);
}

std::string PublisherTest::PublishError() {
	try {
		Publish();
		return "";
	} catch (const std::exception& error) {
		return error.what();
	}
}

std::string PublisherTest::Package(int version, const std::string& id) const {
	return options_.repository + "/packages/" + id + "/" + id + "_v" + std::to_string(version) + ".tarn";
}

Json::Value PublisherTest::Document(const std::string& version) const {
	Json::Value document;
	std::ifstream file(options_.repository + "/database_info/" + version);
	file >> document;
	return document;
}

std::map<std::string, std::string> PublisherTest::InstalledFrom(const std::string& package) const {
	const TemporaryDirectory destination;
	const archive::ArchiveFile archive(package);
	std::vector<archive::TrustedKey> keys;
	keys.push_back(archive::LoadPublicKeyFile(directory_ / "key.pub"));
	archive.Check(keys, 6);
	const UniqueFd out(open(destination.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	archive::Extract(archive, out.Get());
	std::map<std::string, std::string> files;
	for (const fs::directory_entry& entry : fs::recursive_directory_iterator(destination.Path())) {
		if (entry.is_regular_file() && !entry.is_symlink()) {
			files[entry.path().lexically_relative(destination.Path()).string()] = ReadFile(entry.path().string());
		}
	}
	return files;
}

std::vector<std::string> PublisherTest::RepositoryFiles() const {
	std::vector<std::string> names;
	for (const fs::directory_entry& entry : fs::recursive_directory_iterator(options_.repository)) {
		const std::string name = entry.path().lexically_relative(options_.repository).string();
		if (!entry.is_directory() && name != ".tarndbudpub.lock" && name != "packages/.tarndbudpub.url") {
			names.push_back(name);
		}
	}
	std::sort(names.begin(), names.end());
	return names;
}

bool PublisherTest::IsKilledAfter(int microseconds, const std::function<void()>& function) {
	const pid_t child = fork();
	if (child == 0) {
		function();
		_exit(0);
	}
	if (microseconds != kNever) {
		usleep(static_cast<useconds_t>(microseconds));
		kill(child, SIGKILL);
	}
	int status = 0;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

void PublisherTest::RememberRepository() const {
	fs::copy(options_.repository, directory_ / "before", fs::copy_options::recursive);
}

void PublisherTest::BeginAgain() const {
	fs::remove_all(options_.repository);
	fs::copy(directory_ / "before", options_.repository, fs::copy_options::recursive);
}

int PublisherTest::KilledAtEveryStep(const std::function<void()>& operation, const std::function<void()>& check) {
	int step = 0;
	for (bool killed = true; killed;) {
		BeginAgain();
		++step;
		killed = IsKilled([&] {
			observer_.step = [left = step](const std::string&, std::uint64_t, std::uint64_t) mutable {
				if (--left == 0) {
					raise(SIGKILL);
				}
			};
			operation();
		});
		check();
	}
	return step;
}

int PublisherTest::KilledAtMoments(
    int count, int microseconds, const std::function<void()>& operation, const std::function<void()>& check) const {
	int killed = 0;
	for (int moment = 0; moment < count; ++moment) {
		SCOPED_TRACE(moment);
		BeginAgain();
		killed += IsKilledAfter(moment * microseconds, operation) ? 1 : 0;
		check();
	}
	return killed;
}

} // namespace tarn::test
