#ifndef ARCHIVE_ERROR_H
#define ARCHIVE_ERROR_H

#include <stdexcept>
#include <string>
#include <string_view>

namespace tarn {

/** Why an archive, a key or a member was refused; never leaves the C functions. */
class Error : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/** The text of an errno value after what was attempted: "cannot open x: No such file or directory". */
std::string ErrnoText(const std::string& attempt, int error);

/** Throws Error with ErrnoText() of the current errno. */
[[noreturn]] void ThrowErrno(const std::string& attempt);

/** A name from an archive made fit for one log line: control characters become \xNN. */
std::string Printable(std::string_view name);

} // namespace tarn

#endif
