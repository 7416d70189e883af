/** @file Who holds a database's reader lock at this moment. */
#ifndef HOST_LIBRARY_READERS_H
#define HOST_LIBRARY_READERS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::ctl {

/**
 * The processes that hold it as readers, told by the system's list of locks, so that nobody is disturbed: trying the
 * lock would hold off a reader for a moment. Processes of other namespaces are not told.
 */
[[nodiscard]] std::vector<pid_t> ReadersOf(const std::string& id);

/** The same from a list of locks, for a file that the list names so: "00:1b:4711". */
[[nodiscard]] std::vector<pid_t> ReadersIn(const std::string& locks, const std::string& file);

} // namespace tarn::ctl

#endif
