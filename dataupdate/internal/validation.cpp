#include "dataupdate/internal/validation.h"

#include "base/file_io.h"
#include "base/handle.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/internal/strategy_steps.h"
#include "dataupdate/messages.h"
#include "dataupdate/update_error.h"

#include <tarnsdk/plugin.h>

#include <boost/filesystem.hpp>

#include <fcntl.h>

#include <array>

// An appliance's own platform may lack hooks that check.
#pragma weak TLIBPluginExists
#pragma weak TLIBPluginCheck

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "validation.cpp";
constexpr char kModule[] = "database_autoupdate";
constexpr char kPath[] = "database_autoupdate/validate";
constexpr std::size_t kReasonBytes = 1024;
constexpr std::size_t kWrittenAtOnce = std::size_t{64} * 1024;

using Context = Handle<TLIBPluginContext, TLIBPluginExit>;

/** The list of changes: for each file "put=<name>" or "delete=<name>", and a NUL. */
class ChangeList {
public:
	explicit ChangeList(const std::string& path)
	    : path_(path), file_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)) {
		if (!file_) {
			throw UpdateError(messages::kCannotWrite + path);
		}
	}

	void Add(const char* operation, const std::string& name) {
		text_.append(operation).append("=").append(name).push_back('\0');
		if (text_.size() >= kWrittenAtOnce) {
			Flush();
		}
	}

	void Flush() {
		if (!WriteAll(file_.Get(), text_.data(), text_.size())) {
			throw UpdateError(messages::kCannotWrite + path_);
		}
		text_.clear();
	}

private:
	std::string path_;
	UniqueFd file_;
	std::string text_;
};

/** What the hooks look at, and its end. */
class Presentation {
public:
	Presentation(const ValidationRequest& request, const PreparedUpdate& prepared)
	    : tree_(prepared.tree.empty() ? TempPath(request.volume, request.id, kChecked) : prepared.tree),
	      own_tree_(prepared.tree.empty() ? tree_ : ""),
	      changes_(TempPath(request.volume, request.id, kChanges)) {
		Clear();
		if (!own_tree_.empty()) {
			boost::filesystem::create_directory(own_tree_);
		}
		ChangeList list(changes_);
		prepared.for_each([&](const std::string& name, const std::string& source) {
			list.Add(source.empty() ? "delete" : "put", name);
			if (!own_tree_.empty() && !source.empty()) {
				Link(name, source);
			}
		});
		list.Flush();
	}
	~Presentation() { Clear(); }
	Presentation(const Presentation&) = delete;
	Presentation& operator=(const Presentation&) = delete;

	const std::string& Tree() const { return tree_; }
	const std::string& Changes() const { return changes_; }

private:
	/** A second name takes no space, and hooks find each file where it is going to be. */
	void Link(const std::string& name, const std::string& source) const {
		const boost::filesystem::path target = boost::filesystem::path(own_tree_) / name;
		boost::filesystem::create_directories(target.parent_path());
		InstallRegularFile(source, target.string());
	}

	void Clear() const noexcept {
		CleanTarball(changes_);
		if (!own_tree_.empty()) {
			CleanTmpData(own_tree_);
		}
	}

	std::string tree_;
	std::string own_tree_;
	std::string changes_;
};

Context OpenContext() {
	TLIBPluginContext* context = nullptr;
	if (TLIBPluginSDKInit(kModule, kPath, &context) != 0) {
		throw UpdateError(std::string(messages::kNoVerdict) + kPath + "': it cannot be opened");
	}
	return Context(context);
}

void Set(const Context& context, const char* key, const std::string& value) {
	if (TLIBPluginSetArg(context.get(), key, value.c_str()) != 0) {
		throw UpdateError(std::string(messages::kNoVerdict) + kPath + "': it cannot be told " + key);
	}
}

/** The platform's reason begins with the hook's path in quotation marks. */
[[noreturn]] void ThrowVerdict(int verdict, const std::string& reason) {
	const char* const beginning = verdict == TLIB_PLUGIN_REFUSED ? messages::kRefused : messages::kNoVerdict;
	throw UpdateError(beginning + (reason.empty() ? std::string(kPath) + "': see the system log" : reason.substr(1)));
}

bool HasHooks() {
	return TLIBPluginExists != nullptr && TLIBPluginCheck != nullptr && TLIBPluginExists(kModule, kPath) != 0;
}

} // namespace

void Validate(const ValidationRequest& request, const PreparedUpdate& prepared) {
	if (!HasHooks() || !prepared.is_installable()) {
		return;
	}
	const ActivityScope activity(Phase::kCheck, request.install_directory);
	TARN_LOG(LOG_NOTICE, "Have hooks check: %s", request.id.c_str());
	const Presentation presentation(request, prepared);
	const Context context = OpenContext();
	Set(context, "DATABASE", request.id);
	Set(context, "VERSION", std::to_string(request.version));
	Set(context, "INSTALLED_VERSION", request.installed_version ? std::to_string(*request.installed_version) : "");
	Set(context, "INSTALL_DIRECTORY", request.install_directory);
	Set(context, "KIND", prepared.tree.empty() ? "diff" : "full");
	Set(context, "DIRECTORY", presentation.Tree());
	Set(context, "CHANGES", presentation.Changes());
	std::array<char, kReasonBytes> reason{};
	const auto may_go_on = [] { return IsInterrupted() ? 0 : 1; };
	const int verdict = TLIBPluginCheck(context.get(), may_go_on, reason.data(), reason.size());
	InterruptionPoint(); // A hook that was ended for it has said nothing.
	if (verdict != TLIB_PLUGIN_ACCEPTED) {
		ThrowVerdict(verdict, reason.data());
	}
}

} // namespace tarn::dataupdate
