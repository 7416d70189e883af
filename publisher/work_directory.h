/** @file Space for what a publisher tries out. */
#ifndef PUBLISHER_WORK_DIRECTORY_H
#define PUBLISHER_WORK_DIRECTORY_H

#include <string>

namespace tarn::publisher {

/**
 * A directory that is removed with the object, and by RemoveLeftovers() after a publisher was killed. It lies in the
 * repository, because the administrator has provided room for the data there; a temporary directory is often small, or
 * in memory. Only its owner may enter it, so that a web server that runs as another user serves nothing of it.
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
	[[nodiscard]] std::string Make(const std::string& name) const;

private:
	std::string path_;
};

} // namespace tarn::publisher

#endif
