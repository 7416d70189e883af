#include "host/library/opened_packages.h"

#include <tarncodesign/tarncodesign.h>

#include <json/reader.h>
#include <json/value.h>

#include <dlfcn.h>

#include <cstring>
#include <exception>
#include <memory>

namespace tarn::ctl {

namespace {

constexpr char kUnreadable[] = "what it says about itself cannot be read";

/** A function of the platform that an appliance's own libraries need not have; null when they don't. */
template<typename Function>
Function* OptionalFunction(const char* name) {
	void* const address = dlsym(RTLD_DEFAULT, name);
	Function* function = nullptr;
	static_assert(sizeof function == sizeof address);
	std::memcpy(&function, &address, sizeof function);
	return function;
}

void Listen(tarnarchive_observer observer, void* data) {
	if (auto* const observe = OptionalFunction<decltype(tarnarchive_observe)>("tarnarchive_observe")) {
		observe(observer, data);
	}
}

const char* Tell(void* data, const char* /*package*/, const char* metadata) {
	return static_cast<OpenedPackages*>(data)->Hear(metadata);
}

} // namespace

OpenedPackages::OpenedPackages() {
	Listen(Tell, this);
}

OpenedPackages::~OpenedPackages() {
	Listen(nullptr, nullptr);
}

std::optional<OpenedPackage> OpenedPackages::Last(const std::string& id) const {
	const std::lock_guard<std::mutex> guard(mutex_);
	const auto package = last_.find(id);
	return package == last_.end() ? std::nullopt : std::optional(package->second);
}

void OpenedPackages::ExpectVersion(int version) {
	const std::lock_guard<std::mutex> guard(mutex_);
	expected_ = version;
}

const char* OpenedPackages::Hear(const char* metadata) noexcept {
	const std::lock_guard<std::mutex> guard(mutex_);
	try {
		objection_ = Note(metadata);
		return objection_.empty() ? nullptr : objection_.c_str();
	} catch (const std::exception&) {
		return kUnreadable;
	}
}

std::string OpenedPackages::Note(const char* metadata) {
	Json::Value value;
	const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
	reader->parse(metadata, metadata + std::strlen(metadata), &value, nullptr);
	if (!value.isObject() || !value["id"].isString() || !value["data_version"].isInt()) {
		return kUnreadable;
	}
	OpenedPackage package;
	package.data_version = value["data_version"].asInt();
	if (value["published"].isInt64()) {
		package.published = value["published"].asInt64();
	}
	const std::string id = value["id"].asString();
	if (expected_ && package.data_version != *expected_) {
		return "version " + std::to_string(*expected_) + " of " + id + " is asked for, and this is version " +
		       std::to_string(package.data_version);
	}
	last_[id] = package;
	return "";
}

std::optional<PackageRefusal> LastPackageRefusal() {
	auto* const refusal = OptionalFunction<decltype(tarnarchive_refusal)>("tarnarchive_refusal");
	const char* reason = nullptr;
	const int kind = refusal == nullptr ? TARNARCHIVE_NO_REFUSAL : refusal(&reason);
	if (kind == TARNARCHIVE_NO_REFUSAL) {
		return std::nullopt;
	}
	return PackageRefusal{kind == TARNARCHIVE_NOT_ASKED_FOR, reason};
}

} // namespace tarn::ctl
