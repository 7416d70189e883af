#include "dataupdate/config.h"

#include "dataupdate/file_lock.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"

#include <type_traits>
#include <utility>

namespace tarn::dataupdate {

template<typename T>
T Config::GetAs(const Json::Value& value) const {
	using Stored = std::conditional_t<std::is_same_v<T, unsigned long>, Json::UInt, T>;
	if (!value.is<Stored>()) {
		throw UpdateError(messages::kWrongType);
	}
	return value.as<Stored>();
}

Config::Config(std::shared_ptr<IOUtils> io) : io_(std::move(io)) {}

Config::~Config() = default;

void Config::Init(const std::string& defaultsPath, const std::string& overridePath) {
	defaults_path_ = defaultsPath;
	override_path_ = overridePath;
}

template<typename T>
T Config::__Get(const std::string& section, const std::string& key) const {
	try {
		const Json::Value root = io_->ReadJson(override_path_);
		const Json::Value& value = root[section][key];
		if (!value.isNull()) {
			return GetAs<T>(value);
		}
	} catch (const UpdateError&) {
		// Whatever is wrong with the override, the default holds.
	}
	const Json::Value root = io_->ReadJson(defaults_path_);
	const Json::Value& value = root[section][key];
	if (value.isNull()) {
		throw UpdateError(messages::kMissingSetting + section + "'-'" + key + "' not found");
	}
	return GetAs<T>(value);
}

template<typename T>
void Config::__Set(const std::string& section, const std::string& key, const T& value) const {
	Json::Value root;
	const FileLock lock(kConfigLock, kLockTimeout);
	try {
		root = io_->ReadJson(override_path_);
	} catch (const UpdateError&) {
		root = Json::Value(Json::objectValue);
	}
	root[section][key] = value;
	try {
		io_->WriteJson(override_path_, root);
	} catch (const UpdateError&) {
		throw UpdateError(messages::kCannotSet + section + ":" + key);
	}
}

std::string Config::Get(const std::string& section, const std::string& key) const {
	return __Get<std::string>(section, key);
}

unsigned long Config::GetAsUInt64(const std::string& section, const std::string& key) const {
	return __Get<unsigned long>(section, key);
}

bool Config::GetAsBool(const std::string& section, const std::string& key) const {
	return __Get<bool>(section, key);
}

void Config::Set(const std::string& section, const std::string& key, const std::string& value) const {
	__Set<std::string>(section, key, value);
}

void Config::Set(const std::string& section, const std::string& key, const char* value) const {
	__Set<std::string>(section, key, std::string(value));
}

void Config::Set(const std::string& section, const std::string& key, unsigned long value) const {
	__Set<unsigned long>(section, key, value);
}

void Config::Set(const std::string& section, const std::string& key, bool value) const {
	__Set<bool>(section, key, value);
}

std::vector<std::string> Config::GetSections() const {
	try {
		return io_->ReadJson(override_path_).getMemberNames();
	} catch (const UpdateError&) {
		return io_->ReadJson(defaults_path_).getMemberNames();
	}
}

template TARNDBUD_EXPORT std::string Config::GetAs<std::string>(const Json::Value&) const;
template TARNDBUD_EXPORT unsigned long Config::GetAs<unsigned long>(const Json::Value&) const;
template TARNDBUD_EXPORT bool Config::GetAs<bool>(const Json::Value&) const;
template TARNDBUD_EXPORT std::string Config::__Get<std::string>(const std::string&, const std::string&) const;
template TARNDBUD_EXPORT unsigned long Config::__Get<unsigned long>(const std::string&, const std::string&) const;
template TARNDBUD_EXPORT bool Config::__Get<bool>(const std::string&, const std::string&) const;
template TARNDBUD_EXPORT void Config::__Set<std::string>(
    const std::string&, const std::string&, const std::string&) const;
template TARNDBUD_EXPORT void Config::__Set<unsigned long>(
    const std::string&, const std::string&, const unsigned long&) const;
template TARNDBUD_EXPORT void Config::__Set<bool>(const std::string&, const std::string&, const bool&) const;

} // namespace tarn::dataupdate
