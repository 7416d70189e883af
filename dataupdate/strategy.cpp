#include "dataupdate/strategy.h"

#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/internal/extract_package.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/messages.h"
#include "dataupdate/progress.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <tarncodesign/tarncodesign.h>

#include <memory>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "strategy";
constexpr double kLeastFreeShare = 0.05;

struct ArchiveCloser {
	void operator()(tarnarchive* archive) const { tarnarchive_free(archive); }
};

[[noreturn]] void ThrowArchiveFailure(const char* operation, const std::string& tarball) {
	throw UpdateError(operation + tarball + " failed, ret: 0");
}

} // namespace

BaseStrategy::~BaseStrategy() = default;

void BaseStrategy::PrepareUpdate() {}

void BaseStrategy::ApplyUpdate() {}

std::set<std::string> BaseStrategy::GetModifiedFiles() const {
	return {};
}

int64_t BaseStrategy::GetDeltaSize() const {
	return 0;
}

bool BaseStrategy::_CheckDigest(const std::string& path, const std::string& digest) const {
	return FileSha384(path) == digest;
}

bool BaseStrategy::_IsSpaceEnough(const std::string& path, int64_t delta) const {
	const auto [free_bytes, capacity] = IOUtils().GetFsSize(path);
	const auto available = static_cast<int64_t>(free_bytes);
	TARN_LOG(LOG_DEBUG, "capacity: %ju", capacity);
	TARN_LOG(LOG_DEBUG, "available: %jd", static_cast<intmax_t>(available));
	TARN_LOG(LOG_DEBUG, "delta: %jd", static_cast<intmax_t>(delta));
	return static_cast<double>(available + delta) / static_cast<double>(capacity) > kLeastFreeShare;
}

void BaseStrategy::_ExtractTarballTo(const std::string& tarball, const std::string& destination) const {
	ExtractPackage(tarball, destination, [] {});
}

void ExtractPackage(
    const std::string& tarball, const std::string& destination, const std::function<void()>& before_first_change) {
	const ActivityScope activity(Phase::kUnpack, destination);
	const std::unique_ptr<tarnarchive, ArchiveCloser> archive(tarnarchive_init(destination.c_str()));
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

} // namespace tarn::dataupdate
