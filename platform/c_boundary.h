/** @file What every function needs that is called from C. */
#ifndef PLATFORM_C_BOUNDARY_H
#define PLATFORM_C_BOUNDARY_H

#include <tarncore/tarncore.h>

#include <cerrno>
#include <exception>

namespace tarn {

/** Leaves the code for TLIBCErrGet() and returns what callers take for failure. */
inline int Fail(int code) {
	TLIBCErrSet(code);
	return -1;
}

/** No exception may reach a caller that is written in C; the only ones possible here are a lack of resources. */
template<typename Work>
int WithoutExceptions(Work work) {
	try {
		return work();
	} catch (const std::exception&) {
		return Fail(ENOMEM);
	}
}

} // namespace tarn

#endif
