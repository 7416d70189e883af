/** @file The options that several commands take, each with one name and one sentence of help. */
#ifndef PUBLISHER_COMMANDS_COMMON_OPTIONS_H
#define PUBLISHER_COMMANDS_COMMON_OPTIONS_H

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace tarn::publisher {

/** The database that a command is about; must be given. */
void AddId(CLI::App& command, std::string& id);
/** The repository; must be given. */
void AddRepository(CLI::App& command, std::string& directory);
/** Where it is served, which the last publication has noted. */
void AddNotedUrl(CLI::App& command, std::string& url);
/** The document, by its version or as a channel; what the variable holds is the default. */
void AddDocument(CLI::App& command, std::string& db_version);
/** The keys one of which signed the packages; must be given. */
CLI::Option& AddPublicKeys(CLI::App& command, std::vector<std::string>& files);
void AddOldKeys(CLI::App& command, std::vector<std::string>& files);
void AddJson(CLI::App& command, bool& json);

} // namespace tarn::publisher

#endif
