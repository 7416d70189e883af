#ifndef PUBLISHER_REPLACING_FILE_H
#define PUBLISHER_REPLACING_FILE_H

#include "base/whole_file.h"

#include <string>

namespace tarn::publisher {

/**
 * A file that appears under its name whole or not at all: it is written beside under a temporary name, synced and
 * renamed. Whoever is killed on the way leaves only the temporary file, which RemoveLeftovers() takes away.
 */
class ReplacingFile {
public:
	/** Creates the temporary file, and the directories above it; throws PublishError. */
	explicit ReplacingFile(std::string path);

	int Fd() const { return draft_.Fd(); }
	const std::string& TemporaryPath() const { return draft_.Name(); }
	/** Puts the file in place and makes that durable; throws PublishError. */
	void Commit();

private:
	std::string path_;
	Draft draft_;
};

/**
 * Makes a directory and those above it, for the web server to read whatever the publisher's umask; those that exist are
 * the administrator's and stay as they are. Throws PublishError.
 */
void MakeServedDirectories(const std::string& directory);

/** Removes what a killed publisher left in a directory; the caller holds the repository's lock. */
void RemoveLeftovers(const std::string& directory);

} // namespace tarn::publisher

#endif
