/** @file The context behind the C interface, and filling it from given files. */
#ifndef PLATFORM_TARNCRYPTO_HWID_H
#define PLATFORM_TARNCRYPTO_HWID_H

#include <tarncrypto/tarncrypto.h>

#include <string>
#include <vector>

namespace tarn::crypto {

/** What callers see as the plain structure, with the text that its pointer leads to. */
struct HwidContext : tarncrypto_hwid {
	std::string text;

	HwidContext();
};

/** Fills the context; false, and an empty text, when there is no machine id or the length is out of range. */
bool FillHwid(HwidContext& context, int bytes, const std::vector<std::string>& machine_id_paths);

} // namespace tarn::crypto

#endif
