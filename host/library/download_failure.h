/** @file Why a download failed, by what the platform tells of it. */
#ifndef HOST_LIBRARY_DOWNLOAD_FAILURE_H
#define HOST_LIBRARY_DOWNLOAD_FAILURE_H

#include <string>

namespace tarn::ctl {

/** The end of a sentence about a failed download: what it failed by, and what to check. */
std::string DescribeDownloadFailure(int platform_error);

/** The same by what the HTTP client said last; empty when it said nothing. */
std::string DescribeClientFailure(int platform_error, const std::string& complaint);

} // namespace tarn::ctl

#endif
