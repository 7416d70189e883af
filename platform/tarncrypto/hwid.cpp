#include "platform/tarncrypto/hwid.h"

#include "platform/tarncrypto/device_id.h"

#include <exception>
#include <memory>
#include <new>

namespace tarn::crypto {

HwidContext::HwidContext() : tarncrypto_hwid{nullptr} {
	str = text.data();
}

bool FillHwid(HwidContext& context, int bytes, const std::vector<std::string>& machine_id_paths) {
	const auto id = DeviceId(machine_id_paths, bytes);
	context.text = id.value_or(std::string());
	context.str = context.text.data();
	return id.has_value();
}

} // namespace tarn::crypto

using tarn::crypto::HwidContext;

struct tarncrypto_hwid* tarncrypto_hwid_init() {
	try {
		return std::make_unique<HwidContext>().release();
	} catch (const std::bad_alloc&) {
		return nullptr;
	}
}

bool tarncrypto_hwid_str(struct tarncrypto_hwid* context, int bytes) {
	if (context == nullptr) {
		return false;
	}
	try {
		return FillHwid(static_cast<HwidContext&>(*context), bytes, tarn::crypto::MachineIdPaths());
	} catch (const std::exception&) {
		context->str[0] = '\0';
		return false;
	}
}

void tarncrypto_hwid_free(struct tarncrypto_hwid* context) {
	const std::unique_ptr<HwidContext> owner(static_cast<HwidContext*>(context));
}
