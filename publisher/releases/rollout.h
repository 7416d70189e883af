/** @file A share of devices that get another document, by their ids. */
#ifndef PUBLISHER_RELEASES_ROLLOUT_H
#define PUBLISHER_RELEASES_ROLLOUT_H

#include <string>
#include <string_view>

namespace tarn::publisher {

/** A share in hundredths of a percent, 0 to kWhole. */
using Share = int;
constexpr Share kWholeShare = 10'000;

struct RolloutOptions {
	std::string channel;        // the document that the share of devices gets
	std::string document = "1"; // the document that they ask for
	std::string percent;
	std::string conf_file;
	std::string repository; // where the documents are compared; empty for not at all
};

/** The share that a text such as "12.5" means; throws UsageError for one that is no percentage of two decimals. */
[[nodiscard]] Share ParsePercent(std::string_view text);
/** "12.5". */
std::string PercentText(Share share);

/** What nginx reads: for each path the file that a device gets. */
std::string RolloutConf(const std::string& channel, const std::string& document, Share share);

/**
 * Writes the file that nginx includes; it appears whole. A file that something else has written is not replaced.
 *
 * With a repository and a share above 0, the channel's document must name every database that the other document names,
 * and no lower version of it: devices of the share see the channel's document alone.
 *
 * @return the share
 * @throws UsageError for a value that can never work, PublishError otherwise
 */
Share Rollout(const RolloutOptions& options);

} // namespace tarn::publisher

#endif
