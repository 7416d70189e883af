#include "dataupdate/hook.h"

#include "dataupdate/internal/log.h"

#include <boost/algorithm/string/join.hpp>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "hook.cpp";
constexpr char kModule[] = "database_autoupdate";
constexpr char kPath[] = "database_autoupdate/version_change";
constexpr char kDelimiter[] = ":";

} // namespace

UpdateHook::UpdateHook(const std::string& id, const std::set<std::string>& files) : module_(kModule), path_(kPath) {
	Open(id, JoinFiles(files));
}

// The list is given up. NOLINTNEXTLINE(performance-unnecessary-value-param)
UpdateHook::UpdateHook(FileList files, const std::string& id) : module_(kModule), path_(kPath) {
	std::size_t bytes = 0;
	for (std::size_t at = 0; at < files.Size(); ++at) {
		bytes += files.Name(at).size() + 1;
	}
	std::string joined;
	joined.reserve(bytes);
	for (std::size_t at = 0; at < files.Size(); ++at) {
		files.FreeBefore(at);
		joined.append(at == 0 ? "" : kDelimiter).append(files.Name(at));
	}
	Open(id, joined);
}

void UpdateHook::Open(const std::string& id, const std::string& joined_files) {
	if (TLIBPluginSDKInit(module_.c_str(), path_.c_str(), &handle_) != 0) {
		TARN_LOG(LOG_ERR, "Failed to init hook in module [%s] and path [%s]", module_.c_str(), path_.c_str());
	}
	SetEnv("DATABASE", id);
	SetEnv("CHANGED_FILES", joined_files);
	SetEnv("DELIMITER", kDelimiter);
}

UpdateHook::UpdateHook(const UpdateHook& other) {
	*this = other;
}

UpdateHook& UpdateHook::operator=(const UpdateHook& other) {
	if (this != &other) {
		Clear(); // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall): closes nothing while copying
		handle_ = other.handle_;
		module_ = other.module_;
		path_ = other.path_;
	}
	return *this;
}

UpdateHook::~UpdateHook() {
	UpdateHook::Clear();
}

bool UpdateHook::ExecPre() {
	return ExecAction(TLIB_PLUGIN_ACTION_PRE);
}

bool UpdateHook::ExecPost() {
	return ExecAction(TLIB_PLUGIN_ACTION_POST);
}

void UpdateHook::Clear() {
	if (handle_ != nullptr) {
		TLIBPluginExit(handle_);
	}
}

bool UpdateHook::SetEnv(const std::string& key, const std::string& value) {
	if (handle_ == nullptr) {
		TARN_LOG(LOG_ERR, "Not init or init failed");
		return false;
	}
	if (TLIBPluginSetArg(handle_, key.c_str(), value.c_str()) != 0) {
		TARN_LOG(LOG_ERR, "Failed to set plugin argument key=%s value=%s", key.c_str(), value.c_str());
		return false;
	}
	return true;
}

bool UpdateHook::ExecAction(TLIBPluginActionType action) {
	if (handle_ == nullptr) {
		TARN_LOG(LOG_ERR, "Not init or init failed");
		return false;
	}
	if (TLIBPluginAction(action, handle_) != 0) {
		TARN_LOG(LOG_ERR, "Failed to exec hook at action [%d]", static_cast<int>(action));
		return false;
	}
	return true;
}

std::string UpdateHook::JoinFiles(const std::set<std::string>& files) {
	return boost::algorithm::join(files, kDelimiter);
}

} // namespace tarn::dataupdate
