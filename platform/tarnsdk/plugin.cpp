#include "base/mutex.h"
#include "base/text.h"
#include "platform/c_boundary.h"
#include "platform/tarnsdk/hook_directory.h"
#include "platform/tarnsdk/hook_runner.h"

#include <tarnsdk/plugin.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace {

using tarn::Fail;
using tarn::WithoutExceptions;
using tarn::sdk::HookEvent;

/**
 * The open contexts. Handles are numbers that never return, not addresses: owners that share a handle close it more
 * than once, and the second time must neither touch freed memory nor close somebody else's context.
 */
class {
public:
	TLIBPluginContext* Open(HookEvent event) {
		const tarn::MutexLock guard(mutex_);
		// NOLINTNEXTLINE(performance-no-int-to-ptr): nobody follows this pointer
		auto* const handle = reinterpret_cast<TLIBPluginContext*>(++last_);
		open_.emplace(handle, std::make_shared<HookEvent>(std::move(event)));
		return handle;
	}

	/** Null when the handle isn't open (any more). */
	std::shared_ptr<HookEvent> Find(const TLIBPluginContext* handle) {
		const tarn::MutexLock guard(mutex_);
		const auto found = open_.find(handle);
		return found == open_.end() ? nullptr : found->second;
	}

	void Close(const TLIBPluginContext* handle) {
		const tarn::MutexLock guard(mutex_);
		open_.erase(handle);
	}

private:
	tarn::Mutex mutex_;
	std::uintptr_t last_ TARN_GUARDED_BY(mutex_) = 0;
	std::map<const TLIBPluginContext*, std::shared_ptr<HookEvent>> open_ TARN_GUARDED_BY(mutex_);
} contexts;

bool IsComponent(const std::string& name) {
	return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool IsRelativePath(const std::string& path) {
	const std::vector<std::string> steps = tarn::PathSteps(path);
	return !path.empty() && tarn::JoinSteps(steps) == path && std::count(steps.begin(), steps.end(), "..") == 0;
}

const char* ActionWord(TLIBPluginActionType action) {
	switch (action) {
	case TLIB_PLUGIN_ACTION_PRE:
		return "pre";
	case TLIB_PLUGIN_ACTION_POST:
		return "post";
	}
	return nullptr;
}

} // namespace

int TLIBPluginSDKInit(const char* module, const char* path, TLIBPluginContext** handle) {
	if (handle == nullptr) {
		return Fail(EINVAL);
	}
	*handle = nullptr;
	return WithoutExceptions([&] {
		if (module == nullptr || path == nullptr || !IsComponent(module) || !IsRelativePath(path)) {
			return Fail(EINVAL);
		}
		*handle = contexts.Open({module, path, {}, {}});
		return 0;
	});
}

int TLIBPluginSetArg(TLIBPluginContext* handle, const char* key, const char* value) {
	return WithoutExceptions([&] {
		const std::shared_ptr<HookEvent> event = contexts.Find(handle);
		if (!event || key == nullptr || value == nullptr || !tarn::sdk::IsArgumentKey(key)) {
			return Fail(EINVAL);
		}
		event->arguments[key] = value;
		return 0;
	});
}

int TLIBPluginAction(TLIBPluginActionType action, TLIBPluginContext* handle) {
	return WithoutExceptions([&] {
		const std::shared_ptr<HookEvent> event = contexts.Find(handle);
		const char* const word = ActionWord(action);
		if (!event || word == nullptr) {
			return Fail(EINVAL);
		}
		event->action = word;
		return tarn::sdk::RunHooks(*event, tarn::sdk::HookSettings()) ? 0 : Fail(ECHILD);
	});
}

int TLIBPluginExists(const char* module, const char* path) {
	return WithoutExceptions([&] {
		if (module == nullptr || path == nullptr || !IsComponent(module) || !IsRelativePath(path)) {
			return 0;
		}
		const tarn::sdk::HookSettings settings;
		const tarn::sdk::HookList hooks =
		    tarn::sdk::FindHooks(settings.roots, std::string(module) + "/" + path, settings.owner);
		return hooks.complete && hooks.paths.empty() ? 0 : 1;
	});
}

int TLIBPluginCheck(TLIBPluginContext* handle, int (*may_go_on)(), char* reason, std::size_t size) {
	if (reason == nullptr || size == 0) {
		return Fail(EINVAL);
	}
	*reason = '\0';
	return WithoutExceptions([&] {
		const std::shared_ptr<HookEvent> event = contexts.Find(handle);
		if (!event) {
			return Fail(EINVAL);
		}
		event->action = "check";
		tarn::sdk::HookSettings settings;
		settings.time_limit = std::chrono::seconds(TARN_HOOK_CHECK_TIMEOUT_SECONDS);
		const tarn::sdk::Verdict verdict =
		    tarn::sdk::CheckByHooks(*event, settings, [&] { return may_go_on == nullptr || may_go_on() != 0; });
		reason[verdict.reason.copy(reason, size - 1)] = '\0';
		return static_cast<int>(verdict.verdict);
	});
}

int TLIBPluginExit(TLIBPluginContext* handle) {
	return WithoutExceptions([&] {
		contexts.Close(handle);
		return 0;
	});
}
