/** @file The commands that look after a repository: promote, rollout, prune and check-repo. */
#ifndef PUBLISHER_COMMANDS_REPOSITORY_COMMANDS_H
#define PUBLISHER_COMMANDS_REPOSITORY_COMMANDS_H

#include "publisher/commands/progress_line.h"
#include "publisher/releases/channels.h"
#include "publisher/releases/check_repository.h"
#include "publisher/releases/prune.h"
#include "publisher/releases/rollout.h"

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarn::publisher {

struct RepositoryCommandOptions {
	PromoteOptions promote;
	std::vector<std::string> old_keys;
	RolloutOptions rollout;
	PruneOptions prune;
	RepositoryCheckOptions check;
	bool json = false;
};

/** Adds the commands and their options; the options must outlive the application. */
void AddRepositoryCommands(CLI::App& app, RepositoryCommandOptions& options);

/** Runs the command that was given; returns its exit code, or no value when the command is none of these. */
[[nodiscard]] std::optional<int> RunRepositoryCommand(
    const CLI::App& app, const RepositoryCommandOptions& options, const Streams& streams);

} // namespace tarn::publisher

#endif
