/** @file What is known beforehand of the packages that are downloaded, for showing how far a download is. */
#ifndef HOST_TERMINAL_DOWNLOADS_H
#define HOST_TERMINAL_DOWNLOADS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn::ctl {

/** A package that is going to be downloaded. */
struct PlannedDownload {
	std::string path;        ///< Where it is written.
	std::uint64_t bytes = 0; ///< As the server announces it; 0: unknown.
};

/** One of the packages, while it is downloaded. */
struct DownloadPlace {
	std::size_t number = 0;  ///< From 1 on; 0 for a file that is not planned.
	std::size_t count = 0;   ///< Of all that are planned.
	std::uint64_t bytes = 0; ///< Of the whole file; 0: unknown.
};

/** Tells the packages of the operation that begins, in their order; may be called from any thread. */
void PlanDownloads(std::vector<PlannedDownload> downloads);

/**
 * What is known of a file that is being downloaded. Where nobody announced its size, the beginning of a package tells
 * it. May be called from any thread.
 */
[[nodiscard]] DownloadPlace PlaceOfDownload(const std::string& path);

} // namespace tarn::ctl

#endif
