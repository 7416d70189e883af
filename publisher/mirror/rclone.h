/** @file Runs rclone, which knows the protocols of stores. */
#ifndef PUBLISHER_MIRROR_RCLONE_H
#define PUBLISHER_MIRROR_RCLONE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** What became of a run of rclone. */
struct RcloneResult {
	int status = 0;     // exit status; above 128 for a signal
	std::string output; // of standard output
	std::string error;  // the last complaint, on one line

	[[nodiscard]] bool IsDone() const { return status == 0; }
	/** Whether the failure was that there is no such directory or file. */
	[[nodiscard]] bool IsMissing() const { return status == kNoDirectory || status == kNoFile; }
	/** How it ended and what it complained of, as the end of a sentence. */
	[[nodiscard]] std::string Description() const;

private:
	static constexpr int kNoDirectory = 3;
	static constexpr int kNoFile = 4;
};

/** Told while files are transferred: bytes done, and bytes to do as far as rclone knows. */
using TransferProgress = std::function<void(std::uint64_t done, std::uint64_t all)>;

/**
 * Runs rclone with its configuration and environment as the user has them. It ends when this process is killed.
 *
 * @param input  what it reads from standard input
 * @throws PublishError when rclone is not there or cannot be run; its own failure is in the result
 */
[[nodiscard]] RcloneResult RunRclone(
    const std::vector<std::string>& arguments, const std::string& input, const TransferProgress& progress);

} // namespace tarn::publisher

#endif
