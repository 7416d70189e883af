/** @file What several commands take and do: options with one name and one sentence of help each, and running. */
#ifndef PUBLISHER_COMMANDS_COMMON_OPTIONS_H
#define PUBLISHER_COMMANDS_COMMON_OPTIONS_H

#include "publisher/commands/commands.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <vector>

namespace tarn::publisher {

/** Sets the function that runs on the options when the command is given. */
template<typename Options>
void OnGiven(CLI::App& command, Command& given, const std::shared_ptr<Options>& options,
    int (*run)(const Options&, const Streams&)) {
	command.final_callback([=, &given] { given = [=](const Streams& streams) { return run(*options, streams); }; });
}

/** The database that a command is about; must be given. */
void AddId(CLI::App& command, std::string& id);
/** The repository; must be given. */
void AddRepository(CLI::App& command, std::string& directory);
/** Where it is served, which the last publication has noted. */
void AddNotedUrl(CLI::App& command, std::string& url);
/** The document, by its version or as a channel; what the variable holds is the default. */
void AddDocument(CLI::App& command, std::string& db_version);
/** The keys one of which signed the packages; must be given. */
void AddPublicKeys(CLI::App& command, std::vector<std::string>& files);
/** Adds the keys to those that an option before it may have set. */
void AddOldKeys(CLI::App& command, std::vector<std::string>& files);
void AddJson(CLI::App& command, bool& json);

} // namespace tarn::publisher

#endif
