/** @file The one exception type of base and of the signed package. */
#ifndef BASE_ERROR_H
#define BASE_ERROR_H

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
[[noreturn]] void ThrowErrno(const std::string& attempt);

} // namespace tarn

#endif
