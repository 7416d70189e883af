#include "host/own_umask.h"

#include <sys/stat.h>

#include <optional>

namespace tarn::ctl {

namespace {

constexpr mode_t kOwn = 022;
std::optional<mode_t> callers;

} // namespace

void SetOwnUmask() {
	callers = umask(kOwn);
}

mode_t CallersUmask() {
	if (callers) {
		return *callers;
	}
	// The mask can only be read by setting it.
	const mode_t present = umask(kOwn);
	umask(present);
	return present;
}

} // namespace tarn::ctl
