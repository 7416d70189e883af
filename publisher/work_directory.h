#ifndef PUBLISHER_WORK_DIRECTORY_H
#define PUBLISHER_WORK_DIRECTORY_H

#include <string>

namespace tarn::publisher {

/**
 * Space for what a publisher unpacks and tries out, removed with the object. It lies in the repository, because that is
 * where an administrator has provided room for the data: a temporary directory is often small, or memory. Only its
 * owner may enter it, so that a web server with a user of its own serves nothing of it.
 */
class WorkDirectory {
public:
	/** @throws PublishError */
	explicit WorkDirectory(const std::string& repository);
	WorkDirectory(const WorkDirectory&) = delete;
	WorkDirectory& operator=(const WorkDirectory&) = delete;
	~WorkDirectory();

	/** The path of a name in it. */
	std::string operator/(const std::string& name) const { return path_ + "/" + name; }
	/** Makes a directory in it and returns its path. */
	std::string Make(const std::string& name) const;

	/** Removes those of killed publishers; the caller holds the repository's lock. */
	static void RemoveLeftovers(const std::string& repository);

private:
	std::string path_;
};

} // namespace tarn::publisher

#endif
