/** @file A directory of files that appears whole or not at all. */
#ifndef PUBLISHER_SITE_DIRECTORY_H
#define PUBLISHER_SITE_DIRECTORY_H

#include "base/unique_fd.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tarn::publisher::site {

/** A path without links, "." and "/" at its end, whether something is there or not. */
[[nodiscard]] std::string RealPath(const std::string& name);

/**
 * Files are written to a hidden directory beside the place, which takes the place in one step when all are on the disk.
 * Whoever looks finds the files of one run. A killed run leaves the hidden directory, which the next run removes.
 */
class WholeDirectory {
public:
	/**
	 * @param place  a directory that this class has made, an empty one, or none yet; anything else is refused, since it
	 *               would be lost
	 * @throws PublishError
	 */
	explicit WholeDirectory(const std::string& place);
	WholeDirectory(const WholeDirectory&) = delete;
	WholeDirectory& operator=(const WholeDirectory&) = delete;
	~WholeDirectory();

	/** Writes a file by its path in the directory; throws PublishError. */
	void Write(const std::string& name, std::string_view content);
	/** Puts the directory in its place, and removes what was there; throws PublishError. */
	void Commit();

	std::uint64_t Files() const { return files_; }
	std::uint64_t Bytes() const { return bytes_; }

private:
	void RemoveLeftovers() const;
	void MakeDraft();
	void Exchange();

	std::string place_; // absolute, links resolved
	std::string draft_;
	UniqueFd lock_; // on the draft, so that no other run takes it for what a killed run left
	std::uint64_t files_ = 0;
	std::uint64_t bytes_ = 0;
};

} // namespace tarn::publisher::site

#endif
