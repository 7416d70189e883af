#include "publisher/releases/rollout.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/document.h"
#include "publisher/repository/option_checks.h"

#include <boost/algorithm/string/replace.hpp>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr const char* kMaker = "# Made by tarndbudpub rollout";
constexpr Share kPercent = 100;

void RequireOwnFile(const std::string& path) {
	if (!fs::is_directory(fs::absolute(path).parent_path())) {
		throw PublishError("There is no directory for " + path + ".");
	}
	std::ifstream file(path);
	std::string line;
	const bool is_there = fs::exists(fs::symlink_status(path));
	if (is_there && (!std::getline(file, line) || line.rfind(kMaker, 0) != 0)) {
		throw PublishError("The file " + path + " is there and was not made by tarndbudpub, so it is not replaced.");
	}
}

std::string DocumentPath(const RolloutOptions& options, const std::string& name) {
	return options.repository + "/database_info/" + name;
}

[[noreturn]] void RefuseChannel(
    const RolloutOptions& options, const std::string& id, int wanted, const std::optional<Entry>& offered) {
	const std::string what = offered ? "the older version " + std::to_string(offered->data_version) : "no version";
	throw PublishError("The document " + DocumentPath(options, options.channel) + " names " + what + " of " + id +
	                   ", of which " + options.document + " names version " + std::to_string(wanted) +
	                   ": run \"tarndbudpub promote " + id + " --repo " + options.repository + " --from " +
	                   options.document + " --to " + options.channel + " --key FILE\" before.");
}

/** Devices of the share see the channel's document alone, which must therefore lack nothing. */
void RequireComplete(const RolloutOptions& options) {
	const Document channel(DocumentPath(options, options.channel));
	const Document other(DocumentPath(options, options.document));
	for (const std::string& id : other.Ids()) {
		const int wanted = other.Find(id)->data_version;
		const std::optional<Entry> offered = channel.Find(id);
		if (!offered || offered->data_version < wanted) {
			RefuseChannel(options, id, wanted, offered);
		}
	}
}

} // namespace

Share ParsePercent(std::string_view text) {
	const std::size_t point = text.find('.');
	const std::optional<int> whole = ParseVersion(text.substr(0, point));
	const std::string_view decimals = point == std::string_view::npos ? "0" : text.substr(point + 1);
	const std::optional<int> part = ParseVersion(decimals);
	const int hundredths = part.value_or(0) * (decimals.size() == 1 ? 10 : 1);
	if (!whole || !part || decimals.size() > 2 || *whole > kPercent || *whole * kPercent + hundredths > kWholeShare) {
		throw UsageError("PERCENT \"" + std::string(text) + "\" must be 0 to 100, with at most two decimals.");
	}
	return *whole * kPercent + hundredths;
}

std::string PercentText(Share share) {
	std::string text = std::to_string(share / kPercent);
	if (const Share part = share % kPercent; part != 0) {
		const std::string digits = std::to_string(kPercent + part).substr(1);
		text += "." + (digits.back() == '0' ? digits.substr(0, 1) : digits);
	}
	return text;
}

std::string RolloutConf(const std::string& channel, const std::string& document, Share share) {
	const std::string file = "/database_info/" + document;
	const std::string other = "/database_info/" + channel;
	const std::string pattern = boost::algorithm::replace_all_copy(document, ".", "\\."); // for a regular expression
	std::ostringstream text;
	text << kMaker << ", which writes it again as a whole: " << PercentText(share)
	     << " % of the devices\n# that ask for " << file << " get " << other
	     << ". Goes into the http block; reload nginx after each change.\n"
	     << "split_clients \"$arg_dlid\" $tarndbud_share {\n";
	// nginx takes neither 0 % nor a part that leaves nothing for the others.
	if (share > 0 && share < kWholeShare) {
		text << "\t" << PercentText(share) << "% " << other << ";\n";
	}
	text << "\t* " << (share == kWholeShare ? other : file) << ";\n}\n"
	     << "# Whoever gives no id gets what it asked for.\nmap \"$uri $arg_dlid\" $tarndbud_document {\n"
	     << "\tdefault $uri;\n\t\"~^/database_info/" << pattern << " .\" $tarndbud_share;\n}\n";
	return text.str();
}

Share Rollout(const RolloutOptions& options) {
	CheckWord("CHANNEL", options.channel);
	CheckWord("--document", options.document);
	if (options.channel == options.document) {
		throw UsageError("CHANNEL and --document are both \"" + options.channel + "\".");
	}
	const Share share = ParsePercent(options.percent);
	RequireOwnFile(options.conf_file);
	if (!options.repository.empty() && share > 0) {
		RequireRepository(options.repository);
		RequireComplete(options);
	}
	const fs::path place = fs::weakly_canonical(fs::absolute(options.conf_file)); // A link to it stays a link.
	try {
		WriteWholeFile(place.string(), RolloutConf(options.channel, options.document, share));
	} catch (const Error& error) {
		throw PublishError(std::string(error.what()) + ".");
	}
	if (!SyncDirectory(place.parent_path().string())) {
		throw PublishError(ErrnoText(place.parent_path().string() + " could not be synced", errno) + ".");
	}
	return share;
}

} // namespace tarn::publisher
