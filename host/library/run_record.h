/** @file What the host records of its runs, and of the last one that failed. */
#ifndef HOST_LIBRARY_RUN_RECORD_H
#define HOST_LIBRARY_RUN_RECORD_H

#include "host/library/failure.h"
#include "host/library/services.h"
#include "host/terminal/text.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tarn::ctl {

struct RunRecord {
	std::string operation; ///< "update", "import", "fix", "force-install"
	std::int64_t time = 0; ///< When it ended, in seconds since 1970.
	int exit_status = 0;
	double seconds = 0;
	std::uint64_t downloaded_bytes = 0;
	std::uint64_t downloaded_total = 0;       ///< By all operations since the first record.
	std::string failure;                      ///< A word such as "download"; empty after a success.
	std::optional<std::int64_t> last_success; ///< When an operation last succeeded, this one or an earlier one.
	/** When the server's last document that was there at the end of an operation had been fetched. */
	std::optional<std::int64_t> document_time;
	std::optional<int> offered_version; ///< The version in that document.
};

/** No value when there is none, or none that can be read; later successes leave it. */
std::optional<FailureRecord> ReadFailureRecord(const std::string& id);

/** A record that cannot be written is told to the system log only. */
void RecordFailure(const std::string& id, const char* operation, const Failure& failure);

std::string RunRecordPath(const std::string& id);

/**
 * Does the work and records how it went, success or failure; work that ends because the program was asked to end is not
 * recorded. A record that cannot be written is told to the system log only: the work has been done.
 *
 * @param work  returns how it ended, which is recorded and returned
 */
ExitCode RunRecorded(
    const Services& services, const std::string& id, const char* operation, const std::function<ExitCode()>& work);

/** No value when there is none, or none that can be read. */
std::optional<RunRecord> ReadRunRecord(const std::string& id);

} // namespace tarn::ctl

#endif
