#include "host/library/download_limits.h"

#include "dataupdate/paths.h"
#include "host/library/checked_io.h"

#include <algorithm>
#include <iterator>

// An appliance's own platform may lack what guards downloads on stock Linux.
#pragma weak TLIBCDownloadLimiterSet
#pragma weak TLIBCDownloadFailureGet

namespace tarn::ctl {

namespace {

constexpr std::uint64_t kAnnouncedMargin = 65536;
constexpr unsigned int kDocumentSeconds = 300;
constexpr unsigned int kHurrySeconds = 10;

struct Hint {
	TLIBCDownloadEnd reason;
	const char* text;
};

constexpr Hint kHints[] = {
    {TLIBC_DOWNLOAD_TOO_LARGE, "check what the server, or something on the way to it, sends there"},
    {TLIBC_DOWNLOAD_NO_SPACE, "free some space"},
    {TLIBC_DOWNLOAD_TOO_SLOW,
        "check the network and the server, or set another lowest_rate in /usr/tarn/etc/downloads.conf"},
    {TLIBC_DOWNLOAD_TOO_LONG,
        "check the network and the server, or set another deadline in /usr/tarn/etc/downloads.conf"},
};

} // namespace

void DownloadLimits::Announce(const std::string& link, std::int64_t bytes) {
	if (bytes > 0) {
		std::uint64_t& largest = announced_[link];
		largest = std::max(largest, static_cast<std::uint64_t>(bytes) + kAnnouncedMargin);
	}
}

TLIBCDownloadLimits DownloadLimits::For(const std::string& url, const std::string& file) const {
	TLIBCDownloadLimits limits = {};
	if (file == dataupdate::kCachedInfo) {
		limits.largest_bytes = kLargestDocument;
		limits.largest_is = "a document may be";
		limits.seconds = hurry_ ? kHurrySeconds : kDocumentSeconds;
	} else if (const auto announced = announced_.find(url); announced != announced_.end()) {
		limits.largest_bytes = announced->second;
		limits.largest_is = "announced";
	}
	return limits;
}

void LimitDownloads(const std::shared_ptr<DownloadLimits>& limits) {
	if (TLIBCDownloadLimiterSet == nullptr) {
		return;
	}
	static std::shared_ptr<DownloadLimits> used;
	const auto tell = [](const char* url, const char* file, TLIBCDownloadLimits* result, void* data) {
		*result = static_cast<const DownloadLimits*>(data)->For(url, file);
	};
	TLIBCDownloadLimiterSet(tell, limits.get());
	used = limits; // Only now nobody asks the ones before.
}

std::string DescribeDownloadEnd(int platform_error) {
	const std::string reason = TLIBCDownloadFailureGet == nullptr ? "" : TLIBCDownloadFailureGet();
	const auto* hint = std::find_if(std::begin(kHints), std::end(kHints),
	    [&](const Hint& candidate) { return TLIBC_ERR_DOWNLOAD + candidate.reason == platform_error; });
	const std::string advice = hint == std::end(kHints) ? "see the system log" : hint->text;
	return (reason.empty() ? "" : reason + ", and ") + "the download was ended: " + advice;
}

} // namespace tarn::ctl
