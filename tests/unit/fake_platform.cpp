#include "fake_platform.h"

#include "temporary_directory.h"

#include <tarncore/tarncore.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace tarn::test {

namespace {

namespace fs = std::filesystem;

FakePlatform* current = nullptr;

std::string Joined(const std::string& first, const FakePlatform::Arguments& rest) {
	std::string text = first;
	for (const std::string& argument : rest) {
		text += " " + argument;
	}
	return text;
}

int Download(const FakePlatform& platform, const FakePlatform::Arguments& arguments) {
	const auto option = std::find(arguments.begin(), arguments.end(), "-O");
	if (option == arguments.end() || option + 1 == arguments.end()) {
		return 2;
	}
	WriteFile(*(option + 1), platform.download_content);
	return 0;
}

} // namespace

FakePlatform::FakePlatform() {
	if (current != nullptr) {
		throw std::logic_error("there is a platform already");
	}
	current = this;
	execl = [this](const std::string&, unsigned int, const Arguments& arguments) { return Download(*this, arguments); };
	exec = [](const std::string&, const Arguments& arguments) {
		fs::rename(arguments.at(0), arguments.at(1));
		return 0;
	};
	volume_policy = [](const TARNMountVolInfo&) { return 1; };
}

FakePlatform::~FakePlatform() {
	current = nullptr;
}

FakePlatform& FakePlatform::Current() {
	if (current == nullptr) {
		throw std::logic_error("the platform was called in a test without one");
	}
	return *current;
}

TARNMountVolInfo& FakePlatform::AddVolume(const std::string& mount_path, std::uint64_t free_bytes) {
	TARNMountVolInfo record{};
	mount_path.copy(static_cast<char*>(record.mount_path), sizeof(record.mount_path) - 1);
	record.flags = TARN_VOLUME_FLAG_DATA;
	record.free_bytes = free_bytes;
	record.total_bytes = free_bytes;
	record.healthy = 1;
	record.writable = 1;
	volumes.push_back(record);
	return volumes.back();
}

std::size_t FakePlatform::CountEvents(const std::string& beginning) const {
	return static_cast<std::size_t>(std::count_if(events.begin(), events.end(),
	    [&](const std::string& event) { return event.compare(0, beginning.size(), beginning) == 0; }));
}

} // namespace tarn::test

using tarn::test::FakePlatform;

extern "C" {

int TLIBCExecl(const char* path, unsigned int options, ...) {
	FakePlatform::Arguments arguments;
	std::va_list list;
	va_start(list, options);
	for (const char* argument = va_arg(list, const char*); argument != nullptr; argument = va_arg(list, const char*)) {
		arguments.emplace_back(argument);
	}
	va_end(list);
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back(tarn::test::Joined(path, arguments));
	return platform.execl(path, options, arguments);
}

int TLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4) {
	FakePlatform::Arguments arguments;
	for (const char* argument : {arg1, arg2, arg3, arg4}) {
		if (argument == nullptr) {
			break;
		}
		arguments.emplace_back(argument);
	}
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back(tarn::test::Joined(path, arguments));
	return platform.exec(path, arguments);
}

int TLIBCErrGet(void) {
	return FakePlatform::Current().error_code;
}

int TLIBCFileExist(const char* path) {
	return tarn::test::fs::exists(path) ? 1 : 0;
}

int TARNFSMkdirP(const char* path, mode_t mode, unsigned int flags, uid_t uid, gid_t gid, int extra) {
	FakePlatform& platform = FakePlatform::Current();
	const auto unchanged = static_cast<uid_t>(-1);
	if (!platform.mkdir_works || mode != 0 || flags != 0 || uid != unchanged || gid != unchanged || extra != -1) {
		return 0;
	}
	platform.events.push_back(std::string("mkdir ") + path);
	std::error_code error;
	tarn::test::fs::create_directories(path, error);
	return error ? 0 : 1;
}

int TLIBHostinfoUserAgentGet(const char* category, char* buffer, std::size_t size) {
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back(std::string("user agent ") + category + " " + std::to_string(size));
	std::strncpy(buffer, platform.user_agent.c_str(), size);
	return platform.user_agent_result;
}

int TLIBPluginSDKInit(const char* module, const char* path, TLIBPluginContext** handle) {
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back(std::string("hook init ") + module + " " + path);
	if (platform.plugin_init_result != 0) {
		return platform.plugin_init_result;
	}
	platform.plugins.push_back({module, path});
	*handle = &platform.plugins.back();
	return 0;
}

int TLIBPluginSetArg(TLIBPluginContext* /*handle*/, const char* key, const char* value) {
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back(std::string("hook set ") + key + "=" + value);
	return platform.plugin_set_result;
}

int TLIBPluginAction(TLIBPluginActionType action, TLIBPluginContext* /*handle*/) {
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back("hook action " + std::to_string(static_cast<int>(action)));
	if (platform.on_plugin_action) {
		platform.on_plugin_action();
	}
	return platform.plugin_action_result;
}

int TLIBPluginExists(const char* /*module*/, const char* /*path*/) {
	return FakePlatform::Current().has_checks ? 1 : 0;
}

int TLIBPluginCheck(TLIBPluginContext* /*handle*/, int (*may_go_on)(void), char* reason, std::size_t size) {
	FakePlatform& platform = FakePlatform::Current();
	platform.events.emplace_back("hook check");
	if (platform.on_plugin_check) {
		platform.on_plugin_check();
	}
	reason[platform.check_reason.copy(reason, size - 1)] = '\0';
	return may_go_on() != 0 ? platform.check_result : TLIB_PLUGIN_NO_VERDICT;
}

int TLIBPluginExit(TLIBPluginContext* /*handle*/) {
	FakePlatform::Current().events.emplace_back("hook exit");
	return 0;
}

TARNMountVolInfo* TARNMountVolAllEnum(int kind, int mounted_only, int flags) {
	FakePlatform& platform = FakePlatform::Current();
	if (!platform.volumes_work || kind != 0 || mounted_only != 1 || flags != 0) {
		return nullptr;
	}
	TARNMountVolInfo* next = nullptr;
	for (auto record = platform.volumes.rbegin(); record != platform.volumes.rend(); ++record) {
		// Owned by the list that is returned, as the interface has it.
		auto* copy = new TARNMountVolInfo(*record); // NOLINT(cppcoreguidelines-owning-memory)
		copy->next = next;
		next = copy;
	}
	++platform.open_volume_lists;
	return next;
}

int TARNMountVolInfoGet(const char* path, TARNMountVolInfo* record) {
	const FakePlatform& platform = FakePlatform::Current();
	for (const TARNMountVolInfo& volume : platform.volumes) {
		if (std::strcmp(static_cast<const char*>(volume.mount_path), path) == 0) {
			*record = volume;
			return 0;
		}
	}
	return -1;
}

void TARNMountVolInfoFree(TARNMountVolInfo* list) {
	--FakePlatform::Current().open_volume_lists;
	while (list != nullptr) {
		const std::unique_ptr<TARNMountVolInfo> record(list);
		list = record->next;
	}
}

int TARNVolumeServicePolicy(const TARNMountVolInfo* record) {
	return FakePlatform::Current().volume_policy(*record);
}

struct tarnarchive* tarnarchive_init(const char* destination) {
	FakePlatform& platform = FakePlatform::Current();
	if (!platform.archive_init_works) {
		return nullptr;
	}
	++platform.open_archives;
	return std::make_unique<tarnarchive>(tarnarchive{destination}).release();
}

bool tarnarchive_open_with_keytype(struct tarnarchive* /*context*/, const char* package, int key_type) {
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back(std::string("open ") + package + " " + std::to_string(key_type));
	return platform.archive_open_works;
}

bool tarnarchive_extract_multiple(struct tarnarchive* context, const char* const* members, int mode) {
	FakePlatform& platform = FakePlatform::Current();
	platform.events.push_back("extract " + context->destination + " " + std::to_string(mode));
	if (!platform.archive_extract_works || members != nullptr) {
		return false;
	}
	for (const auto& [name, content] : platform.package_files) {
		tarn::test::WriteFile(context->destination + "/" + name, content);
	}
	if (platform.extract_more) {
		platform.extract_more(context->destination);
	}
	return true;
}

void tarnarchive_free(struct tarnarchive* context) {
	const std::unique_ptr<tarnarchive> owner(context);
	--FakePlatform::Current().open_archives;
}

struct tarncrypto_hwid* tarncrypto_hwid_init(void) {
	FakePlatform& platform = FakePlatform::Current();
	if (!platform.hardware_id_init_works) {
		return nullptr;
	}
	++platform.open_hardware_ids;
	return std::make_unique<tarncrypto_hwid>(tarncrypto_hwid{nullptr}).release();
}

bool tarncrypto_hwid_str(struct tarncrypto_hwid* context, int bytes) {
	FakePlatform& platform = FakePlatform::Current();
	if (!platform.hardware_id_works || bytes != 16) {
		return false;
	}
	context->str = platform.hardware_id.data();
	return true;
}

void tarncrypto_hwid_free(struct tarncrypto_hwid* context) {
	const std::unique_ptr<tarncrypto_hwid> owner(context);
	--FakePlatform::Current().open_hardware_ids;
}
}
