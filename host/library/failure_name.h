/** @file The names of failures' categories, for programs that count them. */
#ifndef HOST_LIBRARY_FAILURE_NAME_H
#define HOST_LIBRARY_FAILURE_NAME_H

#include "host/library/failure.h"

#include <string>

namespace tarn::ctl {

/** A word such as "download"; of an exit code that has one meaning, the word for that. Empty for a success. */
[[nodiscard]] std::string FailureName(ExitCode code, Category category);

} // namespace tarn::ctl

#endif
