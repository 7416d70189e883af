#include "publisher/repository/last_publication.h"

#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"

#include <charconv>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string_view>

namespace tarn::publisher {

namespace {

constexpr const char* kTimeVariable = "SOURCE_DATE_EPOCH";

[[noreturn]] void RefuseToReplace(const std::string& path, int version) {
	throw PublishError("The package " + path +
	                   " is there already, with another content than this tree "
	                   "makes, and is not replaced: devices and caches may have it, though no document names it. "
	                   "Go past it by --data-version " +
	                   std::to_string(std::int64_t{version} + 1) + ", or remove it when it was never served.");
}

} // namespace

bool IsForeign(const PackageReader& reader, const std::string& path, const std::string& id, int version) {
	try {
		static_cast<void>(reader.Open(path, {id, "", version}));
		return false;
	} catch (const ForeignPackage&) {
		return true;
	} catch (const PublishError&) {
		return false;
	}
}

void RequireOwnPackage(
    const Repository& repository, const PackageReader& reader, const PublishOptions& options, int version) {
	const std::string path = repository.PackagePath(options.id, version);
	if (options.keep_diffs == 0 || !IsForeign(reader, path, options.id, version)) {
		return;
	}
	throw PublishError("Nothing is published: the package " + path +
	                   " has no signature by --key or an --old-key, so devices may not trust --key. Give the right "
	                   "key, or name the key that signed the package by --old-key; where that key is not to be trusted "
	                   "any more, publish without a diff package by --keep-diffs 0.");
}

void WarnOfOtherUrl(const Repository& repository, const PublishOptions& options, const PublishObserver& observer) {
	const std::optional<std::string> last = RememberedUrlOf(repository.Directory());
	if (last && WithoutEnd(*last, "/") != WithoutEnd(options.url, "/")) {
		observer.warn("The URL " + options.url + " differs from " + Printable(*last) +
		              ", which the last publication had: if it is mistyped, \"tarndbudpub restore --force --url URL\" "
		              "mends the links.");
	}
}

// Reproducible builds set the variable.
int TimeOfPublication() {
	const char* text = std::getenv(kTimeVariable);
	std::int64_t seconds = std::time(nullptr);
	if (text != nullptr) {
		const std::string_view digits(text);
		const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), seconds);
		if (result.ec != std::errc() || result.ptr != digits.data() + digits.size()) {
			throw UsageError("SOURCE_DATE_EPOCH \"" + std::string(digits) + "\" is no number.");
		}
	}
	if (seconds < 0 || seconds > kMaxNumber) {
		throw PublishError("The time " + std::to_string(seconds) + " does not fit what devices read, 0 to " +
		                   std::to_string(kMaxNumber) + ".");
	}
	return static_cast<int>(seconds);
}

int TimeOfBegun(const PackageReader& reader, const std::string& path, const std::string& id, int version, int now) {
	try {
		const auto published = PublishedTime(ReadMetadata(reader.Open(path, {id, "", version})));
		return std::getenv(kTimeVariable) == nullptr ? published.value_or(now) : now;
	} catch (const PublishError&) {
		RefuseToReplace(path, version);
	}
}

void RequireSameAsBegun(const std::string& path, const std::string& new_package, int version) {
	if (std::filesystem::exists(path) && !SameBytes(path, new_package)) {
		RefuseToReplace(path, version);
	}
}

} // namespace tarn::publisher
