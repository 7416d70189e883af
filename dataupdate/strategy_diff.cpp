#include "dataupdate/file_lock.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/early_digests.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/internal/patcher.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/internal/staged_changes.h"
#include "dataupdate/internal/staged_tree.h"
#include "dataupdate/internal/strategy_steps.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update_error.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"

#include <tarncore/tarncore.h>

#include <boost/filesystem.hpp>

#include <exception>
#include <memory>
#include <optional>
#include <utility>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

constexpr char kVcdiffDecoder[] = "/usr/tarn/sbin/tarndbudvcdiff";

void RunDecoder(const std::string& source, const std::string& output, const std::string& patch) {
	if (TLIBCExecl(kVcdiffDecoder, TLIBC_EXEC_ISOLATED, "decode", source.c_str(), output.c_str(), patch.c_str(),
	        nullptr) != 0) {
		throw UpdateError("Fail to apply vcdiff on " + source);
	}
}

/** The recorded digests by path, whether the record names its files relative to the install directory or not. */
FileList DigestsByPath(const DatabaseStatus& status, const std::string& install_directory) {
	FileList digests;
	for (const auto& [name, file] : status.file_statuses) {
		const bool is_relative = StaysBelow(name);
		digests.Add(JoinPath(install_directory, is_relative ? PlainName(name) : name), file.sha384_digest);
	}
	digests.Sort();
	return digests;
}

/** Tells the digest of an installed file from the status or, if that does not list the file, from what the host knows.
 */
Patcher::KnownDigest DigestSource(
    const DatabaseStatus& status, const std::string& install_directory, const KnownDigest& known) {
	const auto listed = std::make_shared<FileList>(DigestsByPath(status, install_directory));
	return [listed, known, install_directory](const std::string& name) {
		const std::optional<std::string> digest = listed->TextOf(JoinPath(install_directory, name));
		return digest || !known ? digest : known(name);
	};
}

} // namespace

DiffStrategy::DiffStrategy(const std::string& id, const DatabaseStatus& status, const RemoteInfo& remote,
    const std::map<int, DiffInfo>& diffs, const std::string& volume, const std::string& installPrefix,
    const std::string& rootDirectory)
    : id_(id),
      status_(status),
      remote_(remote),
      diffs_(diffs),
      temp_base_(volume),
      install_directory_(installPrefix),
      space_check_path_(rootDirectory),
      early_digests_(std::make_shared<EarlyDigests>()) {}

DiffStrategy::~DiffStrategy() {
	if (!accumulation_directory_.empty()) {
		ClearTmpData(accumulation_directory_);
	}
	for (const auto& [version, path] : package_files_) {
		ClearTmpData(path);
	}
	for (const auto& [version, path] : delta_directories_) {
		ClearTmpData(path);
	}
	ClearTmpData(TempDirPath(temp_base_));
}

void DiffStrategy::PrepareUpdate() {
	if (!_IsDiffUpdateAvailable()) {
		throw UpdateError("No sufficient diff patched");
	}
	const IOUtils io;
	accumulation_directory_ = TempPath(temp_base_, id_, kAccumulated);
	MakeEmptyDirectory(accumulation_directory_);
	patcher_ = std::make_unique<Patcher>(accumulation_directory_, install_directory_, RunDecoder,
	    DigestSource(status_, install_directory_, known_digest_));
	for (int version = status_.data_version; version < remote_.data_version;) {
		_DoDiffUpdateTo(++version);
	}
	CheckConflicts(_ModifyInfos(), install_directory_);
	io.TarnMkdir(install_directory_);
	if (!_IsSpaceEnough(space_check_path_, GetDeltaSize())) {
		throw UpdateError(messages::kLowSpace);
	}
}

void DiffStrategy::ApplyUpdate() {
	try {
		std::optional<StagedChanges> changes;
		std::exception_ptr obstacle;
		try {
			// All of them, so that the first file is not replaced when the last one cannot be.
			if (patcher_) {
				changes.emplace(patcher_->CheckedChanges(), install_directory_, TempPath(temp_base_, id_, kStaged));
			}
		} catch (const UpdateError&) {
			obstacle = std::current_exception();
		}
		if (changes) {
			changes->Stage();
			PlanReplacement(id_, {remote_.data_version, remote_.last_fetch_time, false, temp_base_, install_directory_},
			    [&](PlanWriter& plan) { changes->AddTo(plan); });
		}
		const FileLock lock(UsingLockPath(id_), kLockTimeout);
		const ActivityScope activity(Phase::kApply, install_directory_);
		AnnounceReplacement(id_);
		if (obstacle) { // With the mark set, so that the full package comes next: this chain would fail again.
			std::rethrow_exception(obstacle);
		}
		if (changes) {
			changes->Install();
		}
	} catch (const std::exception& error) {
		throw UpdateError(std::string(messages::kDiffUpdate) + error.what());
	}
}

std::set<std::string> DiffStrategy::GetModifiedFiles() const {
	std::set<std::string> files;
	for (const auto& [name, info] : _ModifyInfos()) {
		files.insert(files.end(), name);
	}
	return files;
}

FileList DiffStrategy::ListModifiedFiles() const {
	FileList files;
	for (const auto& [name, info] : _ModifyInfos()) {
		files.Add(name);
	}
	return files;
}

void DiffStrategy::VisitPrepared(const VisitFile& visit) const {
	if (!patcher_) {
		return;
	}
	for (const auto& [name, info] : patcher_->CheckedChanges()) {
		visit(name, info.operation == ModifyInfo::kDelete ? "" : info.source);
	}
}

// Like the other strategy's. NOLINTNEXTLINE(readability-convert-member-functions-to-static)
std::string DiffStrategy::PreparedTree() const {
	return "";
}

bool DiffStrategy::IsInstallable() const {
	try {
		VisitPrepared([](const std::string& /*name*/, const std::string& /*source*/) {});
		return true;
	} catch (const UpdateError&) {
		return false;
	}
}

void DiffStrategy::TakeDigestsFrom(std::function<std::optional<std::string>(const std::string& name)> known) {
	known_digest_ = std::move(known);
}

std::int64_t DiffStrategy::GetDeltaSize() const {
	const IOUtils io;
	std::int64_t freed = 0;
	for (const auto& [name, info] : _ModifyInfos()) {
		boost::system::error_code ignored;
		if (fs::exists(fs::status(name, ignored))) {
			freed += static_cast<std::int64_t>(io.GetSize(name));
		}
		freed -= static_cast<std::int64_t>(io.GetSize(info.source));
	}
	return freed;
}

bool DiffStrategy::_IsDiffUpdateAvailable() const {
	if (status_.data_version >= remote_.data_version || diffs_.empty()) {
		return false;
	}
	for (int version = status_.data_version; version < remote_.data_version;) {
		if (diffs_.count(++version) == 0) {
			return false;
		}
	}
	return true;
}

void DiffStrategy::_DoDiffUpdateTo(int version) {
	const DiffInfo& diff = diffs_.at(version);
	const std::string number = std::to_string(version);
	const std::string package = package_files_[version] = TempPath(temp_base_, id_, kDiffPackage + number);
	const std::string directory = delta_directories_[version] = TempPath(temp_base_, id_, kDelta + number);
	const IOUtils io;
	MakeEmptyDirectory(directory);
	RemoveLink(package);
	io.Download(package, diff.download_link);
	_ExtractTarballTo(package, directory);
	if (version == remote_.data_version) {
		patcher_->TellOfCopies([early = early_digests_](const std::string& copy) { early->Begin(copy); });
	}
	patcher_->ApplyPackage(directory);
	io.RmRf(directory);
}

const std::map<std::string, ModifyInfo>& DiffStrategy::_ModifyInfos() const {
	static const std::map<std::string, ModifyInfo> kNone;
	return patcher_ ? patcher_->Modifications() : kNone;
}

} // namespace tarn::dataupdate
