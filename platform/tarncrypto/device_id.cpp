#include "platform/tarncrypto/device_id.h"

#include "base/text.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <new>

namespace tarn::crypto {
namespace {

// A part of the interface: another key gives every device another identifier.
constexpr const char* kApplicationKey = "tarn.data_update.device_id.v1";

constexpr std::size_t kMachineIdLength = 32;

bool IsMachineId(const std::string& text) {
	const auto is_digit = [](unsigned char c) { return std::isxdigit(c) != 0; };
	return text.size() == kMachineIdLength && std::all_of(text.begin(), text.end(), is_digit) &&
	       text.find_first_not_of('0') != std::string::npos;
}

} // namespace

const std::vector<std::string>& MachineIdPaths() {
	static const std::vector<std::string> paths = {"/etc/machine-id", "/var/lib/dbus/machine-id"};
	return paths;
}

std::optional<std::string> ReadMachineId(const std::vector<std::string>& paths) {
	for (const std::string& path : paths) {
		std::ifstream file(path);
		std::string text;
		std::getline(file, text);
		if (IsMachineId(text)) {
			std::transform(text.begin(), text.end(), text.begin(),
			    [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
			return text;
		}
		syslog(LOG_INFO, "tarncrypto: no machine id in '%s'", path.c_str());
	}
	return std::nullopt;
}

std::optional<std::string> DeviceId(const std::vector<std::string>& machine_id_paths, int bytes) {
	if (bytes < 1 || bytes > kLongestId) {
		return std::nullopt;
	}
	const std::optional<std::string> machine_id = ReadMachineId(machine_id_paths);
	if (!machine_id) {
		return std::nullopt;
	}
	std::array<unsigned char, EVP_MAX_MD_SIZE> digest = {};
	unsigned int size = 0;
	const std::vector<unsigned char> message(machine_id->begin(), machine_id->end());
	if (HMAC(EVP_sha256(), kApplicationKey, static_cast<int>(std::strlen(kApplicationKey)), message.data(),
	        message.size(), digest.data(), &size) == nullptr) {
		syslog(LOG_ERR, "tarncrypto: cannot compute the device id: HMAC-SHA256 failed");
		return std::nullopt;
	}
	return Hex(digest.data(), static_cast<std::size_t>(bytes));
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
