#include <tarncore/tarncore.h>

namespace {

thread_local int last_error = 0;

} // namespace

int TLIBCErrGet() {
	return last_error;
}

void TLIBCErrSet(int code) {
	last_error = code;
}
