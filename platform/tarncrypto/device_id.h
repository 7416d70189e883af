/** @file The device identifier, derived from the machine id, and the context that callers from C get it in. */
#ifndef PLATFORM_TARNCRYPTO_DEVICE_ID_H
#define PLATFORM_TARNCRYPTO_DEVICE_ID_H

#include <tarncrypto/tarncrypto.h>

#include <optional>
#include <string>
#include <vector>

namespace tarn::crypto {

/** Most bytes that an identifier can have. */
constexpr int kLongestId = 32;

/** The files that may hold the machine id, in the order in which they are asked. */
const std::vector<std::string>& MachineIdPaths();

/** The first usable machine id: 32 hexadecimal digits, not all of them zero. */
[[nodiscard]] std::optional<std::string> ReadMachineId(const std::vector<std::string>& paths);

/** The first bytes of the identifier in lower-case hexadecimal; nothing when there is no machine id. */
[[nodiscard]] std::optional<std::string> DeviceId(const std::vector<std::string>& machine_id_paths, int bytes);

/** What callers see as the plain structure, with the text that its pointer leads to. */
struct HwidContext : tarncrypto_hwid {
	std::string text;

	HwidContext() : tarncrypto_hwid{nullptr} { str = text.data(); }
};

/** Fills the context; false, and an empty text, when there is no machine id or the length is out of range. */
[[nodiscard]] bool FillHwid(HwidContext& context, int bytes, const std::vector<std::string>& machine_id_paths);

} // namespace tarn::crypto

#endif
