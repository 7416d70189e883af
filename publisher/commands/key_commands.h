/** @file The commands about keys: keygen and fingerprint. */
#ifndef PUBLISHER_COMMANDS_KEY_COMMANDS_H
#define PUBLISHER_COMMANDS_KEY_COMMANDS_H

#include <ostream>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarn::publisher {

struct KeyCommandOptions {
	std::string prefix;
	std::vector<std::string> public_keys;
	bool json = false;
};

/** Adds the commands and their options; the options must outlive the application. */
void AddKeyCommands(CLI::App& app, KeyCommandOptions& options);

/** Runs the command that was given; returns false when the command is none of these. Throws PublishError, or Error. */
[[nodiscard]] bool RunKeyCommand(const CLI::App& app, const KeyCommandOptions& options, std::ostream& out);

} // namespace tarn::publisher

#endif
