#include "publisher/diff_verifier.h"

#include "base/text.h"
#include "decoder/decode.h"
#include "publisher/device.h"
#include "publisher/sqlite_content.h"
#include "publisher/tree_changes.h"

namespace tarn::publisher {

namespace {

void DecodePatchFile(const std::string& source, const std::string& output, const std::string& patch) {
	vcdiff::DecodeFile(source, output, patch);
}

/** Whether devices get the published content where bytes of their own are expected. */
bool IsSameByContent(const TreeChange& change) {
	return change.before && change.after && change.before->executable == change.after->executable &&
	       !FindContentDifference(change.before->source, change.after->source);
}

} // namespace

void VerifyDiff(const std::string& package, const std::string& tree, const std::string& copies, const Tree& expected,
    const std::set<std::string>& scripted) {
	try {
		DevicePatcher patcher(copies, tree, DecodePatchFile);
		patcher.Apply(package);
		patcher.Install();
	} catch (const std::exception& error) {
		throw PublishError(std::string("devices could not apply it: ") + error.what());
	}
	const Tree result = ListTree(tree);
	if (result.empty_directories > 0) {
		throw PublishError(
		    "devices would keep " + std::to_string(result.empty_directories) + " empty directories by it");
	}
	for (const TreeChange& difference : CompareTrees(result, expected)) {
		if (scripted.count(difference.name) == 0 || !IsSameByContent(difference)) {
			throw PublishError("devices would get another \"" + Printable(difference.name) + "\" by it");
		}
	}
}

} // namespace tarn::publisher
