#include "dataupdate/strategy.h"

#include "base/handle.h"
#include "base/text.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/internal/staged_tree.h"
#include "dataupdate/internal/strategy_steps.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/space_shortage.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <tarncodesign/tarncodesign.h>

#include <boost/filesystem.hpp>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "strategy";
constexpr double kLeastFreeShare = 0.05;

using Archive = Handle<tarnarchive, tarnarchive_free>;

[[noreturn]] void ThrowArchiveFailure(const char* operation, const std::string& tarball) {
	throw UpdateError(operation + tarball + " failed, ret: 0");
}

bool IsVersion(std::string_view text) {
	const std::string_view digits = text.substr(StartsWith(text, "-") ? 1 : 0); // A server may name any number.
	return !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos;
}

} // namespace

std::string TempPath(const std::string& volume, const std::string& id, const std::string& suffix) {
	return TempDirPath(volume) + "/" + id + "_" + suffix;
}

bool IsTempSuffix(std::string_view suffix) {
	static constexpr std::array<std::string_view, 7> kNames = {
	    kUnpacked, kStaged, kReplaced, kAccumulated, kChecked, kChanges, kForced};
	static constexpr std::array<std::string_view, 3> kNumbered = {kFullPackage, kDiffPackage, kDelta};
	return std::find(kNames.begin(), kNames.end(), suffix) != kNames.end() ||
	       std::any_of(kNumbered.begin(), kNumbered.end(), [&](std::string_view name) {
		       return StartsWith(suffix, name) && IsVersion(suffix.substr(name.size()));
	       });
}

void MakeEmptyDirectory(const std::string& path) {
	const IOUtils io;
	io.RmRf(path);
	io.TarnMkdir(path);
}

void RemoveLink(const std::string& path) {
	boost::system::error_code ignored;
	if (boost::filesystem::is_symlink(boost::filesystem::symlink_status(path, ignored))) {
		IOUtils().RmRf(path);
	}
}

void CleanTarball(const std::string& path) noexcept {
	try {
		RemoveFile(path);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to clean tarball '%s': %s", path.c_str(), error.what());
	}
}

void CleanTmpData(const std::string& path) noexcept {
	try {
		IOUtils().RmRf(path);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to clean tmp data: %s", error.what());
	}
}

void ClearTmpData(const std::string& path) noexcept {
	try {
		IOUtils().RmRf(path);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to clear tmp data: %s", error.what());
	}
}

BaseStrategy::~BaseStrategy() = default;

void BaseStrategy::PrepareUpdate() {}

void BaseStrategy::ApplyUpdate() {}

std::set<std::string> BaseStrategy::GetModifiedFiles() const {
	return {};
}

std::int64_t BaseStrategy::GetDeltaSize() const {
	return 0;
}

bool BaseStrategy::_CheckDigest(const std::string& path, const std::string& digest) const {
	return FileSha384(path) == digest;
}

bool BaseStrategy::_IsSpaceEnough(const std::string& path, std::int64_t delta) const {
	const auto [free_bytes, capacity] = IOUtils().GetFsSize(path);
	const auto available = static_cast<std::int64_t>(free_bytes);
	TARN_LOG(LOG_DEBUG, "capacity: %ju", capacity);
	TARN_LOG(LOG_DEBUG, "available: %jd", static_cast<std::intmax_t>(available));
	TARN_LOG(LOG_DEBUG, "delta: %jd", static_cast<std::intmax_t>(delta));
	const bool is_enough = static_cast<double>(available + delta) / static_cast<double>(capacity) > kLeastFreeShare;
	if (!is_enough) {
		const auto reserve = static_cast<std::int64_t>(static_cast<double>(capacity) * kLeastFreeShare);
		const std::int64_t lacking = std::max<std::int64_t>(reserve - available - delta, 0) + 1;
		NoteSpaceShortage({path, free_bytes, capacity, static_cast<std::uint64_t>(lacking)});
	}
	return is_enough;
}

void BaseStrategy::_ExtractTarballTo(const std::string& tarball, const std::string& destination) const {
	ExtractPackage(tarball, destination, [] {});
}

void NotePackage(const std::string& tarball) {
	const Archive archive(tarnarchive_init(boost::filesystem::path(tarball).parent_path().c_str()));
	if (archive && access(tarball.c_str(), R_OK) == 0) {
		tarnarchive_open_with_keytype(archive.get(), tarball.c_str(), TARNARCHIVE_KEYTYPE_DATA_UPDATE);
	}
}

void ExtractPackage(
    const std::string& tarball, const std::string& destination, const std::function<void()>& before_first_change) {
	const ActivityScope activity(Phase::kUnpack, destination);
	const Archive archive(tarnarchive_init(destination.c_str()));
	if (!archive) {
		throw UpdateError("Failed to extract package at tarnarchive_init");
	}
	if (!tarnarchive_open_with_keytype(archive.get(), tarball.c_str(), TARNARCHIVE_KEYTYPE_DATA_UPDATE)) {
		ThrowArchiveFailure(messages::kCannotOpenPackage, tarball);
	}
	before_first_change();
	if (!tarnarchive_extract_multiple(archive.get(), nullptr, TARNARCHIVE_EXTRACT_ALL)) {
		ThrowArchiveFailure(messages::kCannotExtract, tarball);
	}
}

ForceInstallByLink::ForceInstallByLink(const std::string& id, const std::string& link, const std::string& volume,
    const std::string& installPrefix, const std::string& rootDirectory)
    : id_(id), link_(link), temp_base_(volume), install_directory_(installPrefix), root_directory_(rootDirectory) {}

ForceInstallByLink::~ForceInstallByLink() {
	if (!package_path_.empty()) {
		CleanTarball(package_path_);
	}
	CleanTmpData(TempDirPath(temp_base_));
}

void ForceInstallByLink::PrepareUpdate() {
	const IOUtils io;
	package_path_ = TempPath(temp_base_, id_, kForced);
	io.TarnMkdir(TempDirPath(temp_base_));
	RemoveLink(package_path_);
	io.Download(package_path_, link_);
	io.TarnMkdir(install_directory_);
}

void ForceInstallByLink::ApplyUpdate() {
	try {
		const FileLock lock(UsingLockPath(id_), kLockTimeout);
		ExtractPackage(package_path_, install_directory_, [this] { AnnounceReplacement(id_); });
	} catch (const std::exception& error) {
		throw UpdateError(std::string(messages::kForceInstall) + error.what());
	}
}

} // namespace tarn::dataupdate
