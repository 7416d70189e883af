#include "child_process.h"

#include "temporary_directory.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarn::test {

namespace {

/** What a child finds on its descriptors. */
class FileActions {
public:
	FileActions() { posix_spawn_file_actions_init(&actions_); }
	FileActions(const FileActions&) = delete;
	FileActions& operator=(const FileActions&) = delete;
	~FileActions() { posix_spawn_file_actions_destroy(&actions_); }

	void Redirect(int fd, const std::string& path) {
		constexpr mode_t kMode = 0600;
		posix_spawn_file_actions_addopen(&actions_, fd, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, kMode);
	}
	const posix_spawn_file_actions_t* Get() const { return &actions_; }

private:
	posix_spawn_file_actions_t actions_ = {};
};

} // namespace

ChildResult RunChild(const std::vector<std::string>& command, const std::string& directory) {
	std::vector<std::string> words = command;
	std::vector<char*> arguments;
	arguments.reserve(words.size() + 1);
	for (std::string& word : words) {
		arguments.push_back(word.data());
	}
	arguments.push_back(nullptr);
	const std::string out = directory + "/.out";
	const std::string err = directory + "/.err";
	FileActions actions;
	actions.Redirect(STDOUT_FILENO, out);
	actions.Redirect(STDERR_FILENO, err);
	pid_t child = 0;
	if (posix_spawnp(&child, arguments[0], actions.Get(), nullptr, arguments.data(), environ) != 0) {
		throw std::runtime_error("cannot run " + command.front());
	}
	int status = 0;
	if (waitpid(child, &status, 0) != child) {
		throw std::runtime_error("cannot wait for " + command.front());
	}
	ChildResult result = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
	std::filesystem::remove(out);
	std::filesystem::remove(err);
	return result;
}

} // namespace tarn::test
