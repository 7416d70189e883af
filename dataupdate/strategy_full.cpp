#include "dataupdate/file_lock.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/early_digests.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/internal/staged_tree.h"
#include "dataupdate/internal/strategy_steps.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <algorithm>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

/** Boost asks for the working directory in any case, which fails where that has been removed. */
fs::path CanonicalPath(const fs::path& path) {
	return path.is_absolute() ? fs::canonical(path, "/") : fs::canonical(path);
}

/** The canonical form of a path; an entry that is no link shares its directory's, which is cheaper to find out once. */
class Canonicalizer {
public:
	std::string operator()(const fs::path& entry, bool is_link) {
		if (is_link) {
			return CanonicalPath(entry).string();
		}
		if (entry.parent_path() != directory_) {
			directory_ = entry.parent_path();
			canonical_directory_ = CanonicalPath(directory_);
		}
		return (canonical_directory_ / entry.filename()).string();
	}

private:
	fs::path directory_;
	fs::path canonical_directory_;
};

} // namespace

FullStrategy::FullStrategy(const std::string& id, const RemoteInfo& remote, const std::string& volume,
    const std::string& installPrefix, const std::string& rootDirectory)
    : id_(id),
      remote_(remote),
      temp_base_(volume),
      install_directory_(installPrefix),
      space_check_path_(rootDirectory),
      early_digests_(std::make_shared<EarlyDigests>()) {}

FullStrategy::~FullStrategy() {
	if (!package_path_.empty()) {
		CleanTarball(package_path_);
	}
	if (!unpack_directory_.empty()) {
		CleanTmpData(unpack_directory_);
		CleanTmpData(TempPath(temp_base_, id_, kStaged));
		CleanTmpData(TempPath(temp_base_, id_, kReplaced));
	}
}

void FullStrategy::PrepareUpdate() {
	const IOUtils io;
	// What a killed run left takes space that this one needs: both of its trees, and a diff update's replaced files.
	for (const char* suffix : {kUnpacked, kStaged, kReplaced, kAccumulated, kChecked, kChanges}) {
		io.RmRf(TempPath(temp_base_, id_, suffix));
	}
	package_path_ = TempPath(temp_base_, id_, kFullPackage + std::to_string(remote_.data_version));
	io.TarnMkdir(TempDirPath(temp_base_));
	RemoveLink(package_path_);
	io.Download(package_path_, remote_.download_link);
	unpack_directory_ = TempPath(temp_base_, id_, kUnpacked);
	MakeEmptyDirectory(unpack_directory_);
	_ExtractTarballTo(package_path_, unpack_directory_);
	_CalModifyInfo();
	io.TarnMkdir(install_directory_);
	if (!_IsSpaceEnough(space_check_path_, GetDeltaSize())) {
		throw UpdateError(messages::kLowSpace);
	}
	// Linking and renaming keep one processor busy.
	VisitPrepared([this](const std::string& /*name*/, const std::string& file) { early_digests_->Begin(file); });
	is_staged_ = _Stage();
}

void FullStrategy::ApplyUpdate() {
	try {
		const StagedTree staged(temp_base_, id_, install_directory_);
		if (is_staged_) {
			PlanReplacement(id_, {remote_.data_version, remote_.last_fetch_time, true, temp_base_, install_directory_},
			    [&](PlanWriter& plan) { _AddTo(plan, staged.Path()); });
		}
		const FileLock lock(UsingLockPath(id_), kLockTimeout);
		const ActivityScope activity(Phase::kApply, install_directory_);
		AnnounceReplacement(id_);
		is_staged_ ? staged.ClearInstalled() : RemoveEntries(install_directory_);
		if (!is_staged_ || !staged.MoveIn()) {
			CleanTmpData(staged.Path());
			// A file that is moved or linked does not get what its directory hands down.
			_PlaceFiles(
			    install_directory_, HandsAttributesDown(install_directory_) ? CopyRegularFile : InstallRegularFile);
		}
	} catch (const std::exception& error) {
		throw UpdateError(std::string(messages::kFullUpdate) + error.what());
	}
	CleanTarball(package_path_); // Or the disk would have to take it.
}

std::set<std::string> FullStrategy::GetModifiedFiles() const {
	std::set<std::string> files;
	for (std::size_t at = 0; at < unpacked_.Size(); ++at) {
		files.insert(files.end(), _Target(at));
	}
	return files;
}

FileList FullStrategy::ListModifiedFiles() const {
	FileList files;
	for (std::size_t at = 0; at < unpacked_.Size(); ++at) {
		files.Add(_Target(at));
	}
	return files;
}

void FullStrategy::VisitPrepared(const VisitFile& visit) const {
	for (std::size_t at = 0; at < unpacked_.Size(); ++at) {
		const std::string name(unpacked_.Name(at));
		visit(name, unpacked_.HasText(at) ? unpacked_.Text(at) : unpack_directory_ + "/" + name);
	}
}

const std::string& FullStrategy::PreparedTree() const {
	return unpack_directory_;
}

// Like the other strategy's. NOLINTNEXTLINE(readability-convert-member-functions-to-static)
bool FullStrategy::IsInstallable() const {
	return true;
}

std::string FullStrategy::_Target(std::size_t at) const {
	return (fs::path(install_directory_) / std::string(unpacked_.Name(at))).string();
}

std::int64_t FullStrategy::GetDeltaSize() const {
	const IOUtils io;
	return static_cast<std::int64_t>(io.GetSize(install_directory_)) -
	       static_cast<std::int64_t>(io.GetSize(unpack_directory_));
}

void FullStrategy::_CalModifyInfo() {
	try {
		std::string base; // Found out for the first file: a missing directory is the walk's to tell.
		Canonicalizer canonical;
		const auto add = [&](const std::string& entry) {
			const fs::file_status own_status = fs::symlink_status(entry);
			const bool is_link = fs::is_symlink(own_status);
			if (!fs::is_regular_file(is_link ? fs::status(entry) : own_status)) {
				return;
			}
			if (base.empty()) {
				base = CanonicalPath(unpack_directory_).string();
			}
			const std::string resolved = canonical(entry, is_link);
			if (resolved.compare(0, base.size(), base) != 0) {
				throw UpdateError("path not in base");
			}
			const std::string relative = resolved.substr(std::min(base.size() + 1, resolved.size()));
			unpacked_.Add(relative, entry == unpack_directory_ + "/" + relative ? "" : entry);
		};
		IOUtils().IterateDirectory(unpack_directory_, add, true);
		unpacked_.Sort();
	} catch (const fs::filesystem_error& error) {
		throw UpdateError(std::string("Fail to calculate modify info: ") + error.what());
	}
}

bool FullStrategy::_Stage() const {
	const std::string staged = TempPath(temp_base_, id_, kStaged);
	if (!AreOnOneMount(unpack_directory_, install_directory_) || HandsAttributesDown(install_directory_)) {
		return false;
	}
	const ActivityScope activity(Phase::kUnpack, staged);
	try {
		StagedTree(temp_base_, id_, install_directory_).MakeRoom();
		_PlaceFiles(staged, LinkRegularFile);
		return true;
	} catch (const std::exception& error) {
		TellSlowReplacement(error.what());
		CleanTmpData(staged);
		return false;
	}
}

void FullStrategy::_AddTo(PlanWriter& plan, const std::string& staged) const {
	VisitPrepared([&](const std::string& name, const std::string& /*unpacked*/) {
		plan.AddFile(name, (fs::path(staged) / name).string());
	});
}

void FullStrategy::_PlaceFiles(const std::string& root, void (*place)(const std::string&, const std::string&)) const {
	fs::path made;
	VisitPrepared([&](const std::string& name, const std::string& unpacked) {
		const fs::path path = fs::path(root) / name;
		const fs::path parent = path.parent_path();
		if (parent != made) {
			fs::create_directories(parent);
			made = parent;
		}
		place(unpacked, path.string());
	});
}

} // namespace tarn::dataupdate
