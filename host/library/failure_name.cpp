#include "host/library/failure_name.h"

namespace tarn::ctl {

namespace {

const char* NameOf(Category category) {
	switch (category) {
	case Category::kOther: return "other";
	case Category::kInterrupted: return "interrupted";
	case Category::kLocked: return "locked";
	case Category::kLockUnusable: return "lock_unusable";
	case Category::kUnknownDatabase: return "unknown_database";
	case Category::kDownload: return "download";
	case Category::kLowSpace: return "low_space";
	case Category::kNoSuitableVolume: return "no_suitable_volume";
	case Category::kVolumesUnknown: return "volumes_unknown";
	case Category::kWrongConfiguration: return "wrong_configuration";
	case Category::kPackageRefused: return "package_refused";
	case Category::kPackageUnusable: return "package_unusable";
	case Category::kRefusedByCheck: return "refused_by_check";
	case Category::kNoVerdict: return "no_verdict";
	case Category::kFilesMayBeAMixture: return "files_may_be_a_mixture";
	case Category::kUndecodable: return "undecodable";
	case Category::kInvalidRecord: return "invalid_record";
	case Category::kNotWritable: return "not_writable";
	case Category::kDefaultsMissing: return "defaults_missing";
	}
	return "other";
}

} // namespace

std::string FailureName(ExitCode code, Category category) {
	switch (code) {
	case kDone: return "";
	case kUnsupported: return NameOf(Category::kUnknownDatabase);
	case kAboveOffered: return "above_offered";
	case kRefusedHere: return NameOf(Category::kRefusedByCheck);
	case kBeyondBudget: return "beyond_budget";
	case kHeld: return "held";
	case kLocked: return NameOf(Category::kLocked);
	default: return NameOf(category);
	}
}

} // namespace tarn::ctl
