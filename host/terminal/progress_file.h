/** @file What a running operation tells other processes of its progress. */
#ifndef HOST_TERMINAL_PROGRESS_FILE_H
#define HOST_TERMINAL_PROGRESS_FILE_H

#include "base/unique_fd.h"
#include "host/terminal/progress.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::ctl {

/** Exists while an operation on a database does something; a killed process leaves it until the next one ends. */
constexpr char kProgressFile[] = "/run/data_update/progress.json";

/** Names the database that this process works on, as long as it lives; one at a time. */
class ProgressSubject {
public:
	explicit ProgressSubject(const std::string& id);
	~ProgressSubject();
	ProgressSubject(const ProgressSubject&) = delete;
	ProgressSubject& operator=(const ProgressSubject&) = delete;

	/** Empty when there is none; may be called from any thread. */
	static std::string Current();
};

struct ProgressRecord {
	std::string id;
	std::string line;        ///< As a terminal shows it.
	std::string phase;       ///< The beginning of the line.
	std::size_t package = 0; ///< Which one is downloaded, from 1 on; 0: none of several.
	std::size_t packages = 0;
	std::uint64_t bytes = 0;       ///< Of a download, what has come.
	std::uint64_t whole_bytes = 0; ///< Of the whole file; 0: unknown.
	std::int64_t process = 0;
};

/** Keeps the file up to date; used by one thread. */
class ProgressPublisher {
public:
	/** Removes the file if this object has written it, or a process that lives no more. */
	~ProgressPublisher();

	/** Writes what has changed while there is a subject. A file that cannot be written is no failure. */
	void Publish(const Sample& sample, const std::string& line);

private:
	UniqueFd file_;
	std::string written_;
};

/** As one line of JSON. */
std::string FormatProgress(const ProgressRecord& record);

/** No value when nothing has been written by a process that still lives. */
std::optional<ProgressRecord> ReadProgress();

} // namespace tarn::ctl

#endif
