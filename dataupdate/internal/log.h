/**
 * @file
 * Syslog lines with a position. A source file defines kLogSource, the name under which its lines appear, before use.
 */
#ifndef DATAUPDATE_INTERNAL_LOG_H
#define DATAUPDATE_INTERNAL_LOG_H

#include <syslog.h>

namespace tarn::dataupdate {

/** Logs "<source>:<line> <text>". Never throws; a text that memory is too short for is logged as its bare format. */
void LogAt(int priority, const char* source, int line, const char* format, ...) noexcept
    __attribute__((format(printf, 4, 5)));

} // namespace tarn::dataupdate

#define TARN_LOG(priority, ...) ::tarn::dataupdate::LogAt(priority, kLogSource, __LINE__, __VA_ARGS__)

#endif
