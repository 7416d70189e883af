/** @file The one exception type of base and of the signed package. */
#ifndef BASE_ERROR_H
#define BASE_ERROR_H

#include "base/text.h"

#include <cerrno>
#include <stdexcept>
#include <string>

namespace tarn {

/** Why a file, an archive, a key or a member was refused. */
class Error : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/** Throws Error with the reason unless the condition holds. */
inline void Require(bool holds, const char* reason) {
	if (!holds) {
		throw Error(reason);
	}
}

/** Throws Error with ErrnoText() of the current errno. */
[[noreturn]] inline void ThrowErrno(const std::string& attempt) {
	throw Error(ErrnoText(attempt, errno));
}

/** Throws as ThrowErrno() unless a call of the system has succeeded. */
inline void RequireCall(bool has_succeeded, const char* attempt) {
	if (!has_succeeded) {
		ThrowErrno(attempt);
	}
}

} // namespace tarn

#endif
