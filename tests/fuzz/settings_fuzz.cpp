// Hostile settings of the administrator's: what the host lets pass, the library can use, and changes one by one. The
// input is a byte that says which of the two files it is, and the file. Writes to the machine's own paths, so it is run
// in scripts/sandbox.
#include "dataupdate/config.h"
#include "dataupdate/paths.h"
#include "dataupdate/service_config.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"
#include "entry.h"
#include "host/library/failure.h"
#include "host/library/settings.h"
#include "scratch.h"

#include <json/value.h>

#include <algorithm>
#include <memory>
#include <string>

namespace {

using tarn::dataupdate::Config;
using tarn::dataupdate::IOUtils;
using tarn::dataupdate::ServiceConfig;
using tarn::dataupdate::UpdateError;
using tarn::test::Require;

bool IsUsable() {
	try {
		tarn::ctl::RequireUsableSettings(IOUtils());
		return true;
	} catch (const tarn::ctl::CommandError& error) {
		Require(*error.what() != '\0', "a refusal has a reason");
		return false;
	}
}

/** These may be missing, or name no place. */
void ReadOptional(const tarn::dataupdate::DatabaseConfig& database) {
	try {
		static_cast<void>(database.GetFormatVersion());
		static_cast<void>(database.GetInstallPrefix());
	} catch (const UpdateError& error) {
		Require(*error.what() != '\0', "a refusal has a reason");
	}
}

void ReadAll() {
	const auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
	const ServiceConfig service(config);
	Require(config->GetAsUInt64("config", "digest_threads") <= UINT32_MAX, "a number is in its range");
	for (const std::string& text : {service.GetDownloadScheme(), service.GetDBInfoDomainName(),
	         service.GetDBInfoVersion(), service.GetCurVolume()}) {
		static_cast<void>(text);
	}
	for (const std::string& id : service.GetDatabaseIDs()) {
		const auto database = service.GetDatabaseConfig(id);
		static_cast<void>(database->GetScheduled());
		Require(database->GetMinReservedSpaceInbytes() <= UINT32_MAX, "a number is in its range");
		ReadOptional(*database);
	}
}

/** Whoever writes a setting leaves the others as they are. */
void WriteOne() {
	Json::Value expected = IOUtils().ReadJson(tarn::dataupdate::kServiceOverride);
	const auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
	ServiceConfig(config).SetCurVolume("/volume2");
	expected["config"]["cur_volume"] = "/volume2";
	Require(IOUtils().ReadJson(tarn::dataupdate::kServiceOverride) == expected, "other settings stay");
}

void CheckUnknown(std::string_view text) {
	const auto lines = 1 + static_cast<unsigned int>(std::count(text.begin(), text.end(), '\n'));
	for (const tarn::ctl::UnknownSetting& unknown : tarn::ctl::FindUnknownSettings()) {
		Require(unknown.setting.line >= 1 && unknown.setting.line <= lines, "a setting has a line");
		Require(tarn::test::IsOneLine(Describe(unknown)), "a line of the log is one");
	}
}

bool LayOut() {
	for (const char* directory : {"/run/data_update", "/usr/share/data_update", "/usr/tarn/etc/data_update"}) {
		std::filesystem::create_directories(directory);
	}
	for (const char* path : {tarn::dataupdate::kServiceDefaults, tarn::dataupdate::kDatabaseDefaults}) {
		const std::filesystem::path name = std::filesystem::path(path).filename();
		tarn::test::Put(path, tarn::test::Content(std::string(TARN_SHIPPED_SETTINGS) + name.string()));
	}
	return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	[[maybe_unused]] static const bool kIsLaidOut = LayOut();
	if (size == 0) {
		return 0;
	}
	const bool is_service = data[0] % 2 == 0;
	const std::string_view text = tarn::test::Text(data + 1, size - 1);
	tarn::test::Put(tarn::dataupdate::kServiceOverride, is_service ? text : "{}");
	tarn::test::Put(tarn::dataupdate::kDatabaseOverride, is_service ? "{}" : text);
	CheckUnknown(text);
	if (IsUsable()) {
		ReadAll();
		WriteOne();
	}
	return 0;
}
