#include "host/library/failure_name.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarn::ctl {

namespace {

/** All but kOther. */
constexpr std::pair<Category, const char*> kNames[] = {
    {Category::kInterrupted, "interrupted"},
    {Category::kLocked, "locked"},
    {Category::kLockUnusable, "lock_unusable"},
    {Category::kUnknownDatabase, "unknown_database"},
    {Category::kDownload, "download"},
    {Category::kLowSpace, "low_space"},
    {Category::kNoSuitableVolume, "no_suitable_volume"},
    {Category::kVolumesUnknown, "volumes_unknown"},
    {Category::kWrongConfiguration, "wrong_configuration"},
    {Category::kPackageRefused, "package_refused"},
    {Category::kPackageUnusable, "package_unusable"},
    {Category::kRefusedByCheck, "refused_by_check"},
    {Category::kNoVerdict, "no_verdict"},
    {Category::kFilesMayBeAMixture, "files_may_be_a_mixture"},
    {Category::kUndecodable, "undecodable"},
    {Category::kInvalidRecord, "invalid_record"},
    {Category::kNotWritable, "not_writable"},
    {Category::kDefaultsMissing, "defaults_missing"},
};

const char* NameOf(Category category) {
	const auto* name = std::find_if(
	    std::begin(kNames), std::end(kNames), [&](const auto& candidate) { return candidate.first == category; });
	return name == std::end(kNames) ? "other" : name->second;
}

} // namespace

std::string FailureName(ExitCode code, Category category) {
	switch (code) {
	case kDone:
		return "";
	case kUnsupported:
		return NameOf(Category::kUnknownDatabase);
	case kAboveOffered:
		return "above_offered";
	case kRefusedHere:
		return NameOf(Category::kRefusedByCheck);
	case kBeyondBudget:
		return "beyond_budget";
	case kHeld:
		return "held";
	case kLocked:
		return NameOf(Category::kLocked);
	default:
		return NameOf(category);
	}
}

} // namespace tarn::ctl
