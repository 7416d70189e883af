#include "base/error.h"

#include "base/text.h"

#include <cerrno>

namespace tarn {

void ThrowErrno(const std::string& attempt) {
	throw Error(ErrnoText(attempt, errno));
}

} // namespace tarn
