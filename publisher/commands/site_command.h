/** @file The command that makes a site. */
#ifndef PUBLISHER_COMMANDS_SITE_COMMAND_H
#define PUBLISHER_COMMANDS_SITE_COMMAND_H

#include "publisher/commands/progress_line.h"
#include "publisher/site/site.h"

namespace CLI {
class App;
}

namespace tarn::publisher::site {

struct SiteCommand {
	SiteOptions options;
	bool json = false;
};

/** Adds the command and its options, which are read into an object that must outlive the parser. */
void AddSiteCommand(CLI::App& app, SiteCommand& command);

/** Makes the site, and prints what was made. */
void RunSite(const SiteCommand& command, const Streams& streams);

} // namespace tarn::publisher::site

#endif
