#include "host/library/volume_move.h"

#include "base/file_io.h"
#include "base/signals.h"
#include "base/text.h"
#include "dataupdate/file_list.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"
#include "dataupdate/volume_handler.h"
#include "host/library/failure.h"
#include "host/library/preparation.h"
#include "host/library/volume_content.h"

#include <tarnsdk/plugin.h>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace tarn::ctl {

namespace fs = std::filesystem;

using dataupdate::MainDirPath;
using End = MoveOutcome::End;

namespace {

/**
 * Tells other services that the databases are about to move to another volume and have moved: both directories of the
 * databases and both volumes. Their hooks advise: every failure is logged, and none stops a move. To be used while no
 * update and no reader runs.
 */
class VolumeHook {
public:
	VolumeHook(const std::string& from, const std::string& to) {
		TLIBPluginContext* context = nullptr;
		if (TLIBPluginSDKInit("database_autoupdate", "database_autoupdate/volume_change", &context) != 0) {
			syslog(LOG_ERR, "The hooks about the change of the volume cannot be run");
			return;
		}
		context_.reset(context);
		Set("FROM", MainDirPath(from));
		Set("TO", MainDirPath(to));
		Set("FROM_VOLUME", from);
		Set("TO_VOLUME", to);
	}

	/** After a move only if it succeeded. */
	void Exec(TLIBPluginActionType action) {
		if (context_ != nullptr && TLIBPluginAction(action, context_.get()) != 0) {
			syslog(LOG_ERR, "A hook %s the change of the volume failed",
			    action == TLIB_PLUGIN_ACTION_PRE ? "before" : "after");
		}
	}

private:
	void Set(const char* key, const std::string& value) {
		if (TLIBPluginSetArg(context_.get(), key, value.c_str()) != 0) {
			syslog(LOG_ERR, "The hooks about the change of the volume cannot be told %s", key);
		}
	}

	std::unique_ptr<TLIBPluginContext, decltype(&TLIBPluginExit)> context_{nullptr, &TLIBPluginExit};
};

/** Every name below a directory, with its kind and, of a file, its size; nothing below what does not exist. */
using Content = dataupdate::FileList;

/** What is found out before anything moves. */
struct Preparation {
	std::string target;
	std::optional<Content> before;
	bool target_is_free = false;
	std::vector<std::string> marked;
	std::optional<VolumeHook> hook;
	std::optional<MoveOutput> output; ///< From the move's beginning on.
	std::string obstacle;             ///< Why nothing can be begun, other than that no volume is suitable.
};

/** No value when something cannot be examined. */
std::optional<Content> ContentBelow(const std::string& directory) {
	Content content;
	const std::size_t prefix = directory.size() + 1;
	const auto add = [&](const std::string& entry) {
		const fs::file_type type = fs::symlink_status(entry).type();
		const std::uintmax_t size = type == fs::file_type::regular ? fs::file_size(entry) : 0;
		content.Add(entry.substr(prefix), std::to_string(static_cast<int>(type)) + " " + std::to_string(size));
	};
	try {
		if (fs::exists(directory)) {
			// Not by the standard's iterator, which holds a descriptor for each level.
			dataupdate::IOUtils().IterateDirectory(directory, add, true);
		}
		content.Sort();
		return content;
	} catch (const std::exception&) { // the file system's, or the library's
		return std::nullopt;
	}
}

/** The library's part. It gives the volume up, asks for another one, and logs the failures of its steps. */
class PreparingHandler : public dataupdate::VolumeHandler {
public:
	PreparingHandler(const Services& services, std::string volume, Preparation& preparation)
	    : VolumeHandler(services.config), services_(services), volume_(std::move(volume)), preparation_(preparation) {}

	std::string FindSuitableVolume(std::string exclude) const override {
		try {
			preparation_.target = VolumeHandler::FindSuitableVolume(std::move(exclude));
			RequireSafeVolume(preparation_.target);
			preparation_.marked = MarkInstalled(services_);
			preparation_.hook.emplace(volume_, preparation_.target);
			preparation_.hook->Exec(TLIB_PLUGIN_ACTION_PRE);
			// After the hook, in which services close their files: SQLite removes journals then.
			preparation_.before = ContentBelow(MainDirPath(volume_));
			const std::optional<Content> there = ContentBelow(MainDirPath(preparation_.target));
			preparation_.target_is_free = there && there->IsEmpty();
			preparation_.output.emplace();
		} catch (const std::exception& error) {
			if (CategoryOf(error.what()) != Category::kNoSuitableVolume) {
				preparation_.obstacle = ExplainException(*services_.io).sentence;
			}
			throw;
		}
		return preparation_.target;
	}

private:
	const Services& services_;
	std::string volume_;
	Preparation& preparation_;
};

/**
 * Everything is copied before anything is deleted, so one of the two is whole unless the file system fails. The setting
 * alone proves nothing: a program that starts in between may have adopted a volume, even one of these two.
 */
End Judge(const Services& services, const std::string& volume, const Preparation& preparation) {
	std::error_code ignored;
	const bool is_gone = fs::symlink_status(MainDirPath(volume), ignored).type() == fs::file_type::not_found;
	if (is_gone && services.config->GetCurVolume() == preparation.target) {
		return End::kMoved;
	}
	const std::optional<Content>& before = preparation.before;
	if (!before) {
		return End::kDivided;
	}
	if (preparation.target_is_free && !before->IsEmpty() && ContentBelow(MainDirPath(preparation.target)) == before) {
		return End::kCopied;
	}
	return ContentBelow(MainDirPath(volume)) == before ? End::kStayed : End::kDivided;
}

void Settle(const Services& services, const Preparation& preparation) {
	// The originals are gone, so the copies must not be in memory alone.
	dataupdate::SyncFileSystem(MainDirPath(preparation.target));
	services.config->SetCurVolume(preparation.target);
	const std::set<std::string> failed = LetRecordsFollow(services, preparation.target);
	for (const std::string& id : preparation.marked) {
		if (failed.count(id) == 0) {
			Unmark({id});
		}
	}
}

void TakeBack(const Services& services, const Preparation& preparation) {
	Unmark(preparation.marked);
	if (!preparation.target_is_free) {
		return;
	}
	try {
		services.io->RmRf(MainDirPath(preparation.target));
	} catch (const dataupdate::UpdateError& error) {
		syslog(LOG_WARNING, "What was copied could not be removed: %s", error.what());
	}
}

} // namespace

MoveOutcome MoveAway(const Services& services, const std::string& volume) {
	Preparation preparation;
	PreparingHandler(services, volume, preparation).UnmountVolumeEvent(volume);
	if (const std::size_t hidden = preparation.output ? preparation.output->End() : 0; hidden > 0) {
		services.terminal.Complain(std::to_string(hidden) + " more lines of mv are not shown.");
	}
	if (!preparation.obstacle.empty()) {
		throw CommandError(kFailed, "The databases stay on " + volume +
		                                ", and no volume is in use until \"tarndbudctl volume mounted " + volume +
		                                "\", for they could not be moved: " + preparation.obstacle);
	}
	if (preparation.target.empty()) {
		return {};
	}
	const End end = Judge(services, volume, preparation);
	if (end == End::kMoved || end == End::kCopied) {
		Settle(services, preparation);
		preparation.hook->Exec(TLIB_PLUGIN_ACTION_POST);
		return {end, preparation.target};
	}
	services.config->SetCurVolume(""); // Also where another program has adopted a volume: the files may not be there.
	if (end == End::kStayed) {
		TakeBack(services, preparation);
	}
	return {end, preparation.target};
}

MoveOutput::MoveOutput() {
	std::array<int, 2> ends = {-1, -1};
	UniqueFd stream(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
	if (!stream || pipe2(ends.data(), O_CLOEXEC) != 0) {
		return;
	}
	read_end_ = UniqueFd(ends[0]);
	const UniqueFd write_end(ends[1]); // Which the thread outlives only when the stream has become another such end.
	stream_ = std::move(stream);
	const process::AllSignalsBlocked blocked; // They are for the main thread.
	thread_ = std::thread([this] { PassOn(); });
	dup2(write_end.Get(), STDERR_FILENO);
}

MoveOutput::~MoveOutput() {
	End();
}

std::size_t MoveOutput::End() {
	if (thread_.joinable()) {
		dup2(stream_.Get(), STDERR_FILENO); // Closes the pipe's last end, by which the thread ends.
		thread_.join();
	}
	return lines_ - std::min(lines_, kShownLines);
}

void MoveOutput::PassOn() {
	constexpr std::size_t kPiece = 4096;
	constexpr std::size_t kLongestLine = 16384;
	std::array<char, kPiece> buffer{};
	std::string line;
	for (ssize_t count = 0; (count = read(read_end_.Get(), buffer.data(), buffer.size())) > 0;) {
		for (ssize_t at = 0; at < count; ++at) {
			line += buffer[static_cast<std::size_t>(at)];
			if (line.back() == '\n' || line.size() == kLongestLine) {
				PassOn(line);
				line.clear();
			}
		}
	}
	PassOn(line);
}

void MoveOutput::PassOn(const std::string& line) {
	const bool is_of_move = StartsWith(line, "/bin/mv: ") || StartsWith(line, "mv: ");
	if (is_of_move && ++lines_ > kShownLines) {
		return;
	}
	// Whoever closed the other end of the stream does not want to know.
	[[maybe_unused]] const bool ignored = WriteAll(stream_.Get(), line.data(), line.size());
}

} // namespace tarn::ctl
