/** @file What this program knows of its downloads beforehand, and what it says of one that was ended. */
#ifndef HOST_LIBRARY_DOWNLOAD_LIMITS_H
#define HOST_LIBRARY_DOWNLOAD_LIMITS_H

#include <tarncore/tarncore.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace tarn::ctl {

/** Seconds that a command waits which only tells something or only drops it: for a document that is arriving. */
constexpr unsigned long kMomentSeconds = 5;

/**
 * The limits of single downloads: a document is small and comes soon, and a diff package is as large as announced, give
 * or take 64 KiB. For everything else the settings of downloads and the free space are the only limits. To be used by
 * the thread that downloads.
 */
class DownloadLimits {
public:
	/** Of several sizes of one link the largest counts; a size that is not above 0 announces nothing. */
	void Announce(const std::string& link, std::int64_t bytes);
	/** From now on a document has to come within 10 seconds. */
	void Hurry() { hurry_ = true; }
	TLIBCDownloadLimits For(const std::string& url, const std::string& file) const;

private:
	std::map<std::string, std::uint64_t> announced_;
	bool hurry_ = false;
};

/** Has the platform obey these limits from now on. A platform that knows no limits of downloads obeys its own rules. */
void LimitDownloads(const std::shared_ptr<DownloadLimits>& limits);

/** Why the platform ended this thread's last download and what to do, as the end of a sentence. */
std::string DescribeDownloadEnd(int platform_error);

} // namespace tarn::ctl

#endif
