#include "dataupdate/internal/early_digests.h"

#include "base/sha2.h"
#include "dataupdate/internal/replacement_plan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr off_t kWorthAThread = off_t{1} << 20U;

bool IsLarge(const std::string& path) {
	struct stat status {};
	return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= kWorthAThread;
}

} // namespace

void EarlyDigests::Begin(const std::string& path) {
	if (files_.size() >= MostDigestThreads() || !IsLarge(path)) {
		return;
	}
	UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
	if (fd) {
		const std::string opened = "/proc/self/fd/" + std::to_string(fd.Get());
		files_.push_back({IdentityOf(path), std::move(fd),
		    std::make_unique<DigestsAhead>(std::vector<std::string>{opened}, DigestsAhead::Caller::kHasOtherWork)});
	}
}

std::optional<std::string> EarlyDigests::Take(const std::string& path) {
	const std::string identity = files_.empty() ? "" : IdentityOf(path);
	const auto file = std::find_if(files_.begin(), files_.end(),
	    [&identity](const File& begun) { return !identity.empty() && begun.identity == identity; });
	if (file == files_.end()) {
		return std::nullopt;
	}
	std::optional<std::string> digest;
	try {
		digest = file->digest->Next();
	} catch (const std::exception&) { // Whoever takes the ordinary digest fails as well, and says why.
	}
	files_.erase(file);
	return digest == Sha384().FinishHex() ? std::nullopt : digest; // A file that could not be read has it as well.
}

} // namespace tarn::dataupdate
