#include "publisher/repository/last_publication.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"

#include <optional>

namespace tarn::publisher {

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
	const std::optional<std::string> last = repository.RememberedUrl();
	if (last && WithoutEnd(*last, "/") != WithoutEnd(options.url, "/")) {
		observer.warn("The URL " + options.url + " differs from " + Printable(*last) +
		              ", which the last publication had: if it is mistyped, \"tarndbudpub restore --force --url URL\" "
		              "mends the links.");
	}
}

} // namespace tarn::publisher
