#include "publisher/diff/expected_tree.h"

#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/device.h"
#include "publisher/sqlite/sqlite_content.h"

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void RefuseOther(const std::string& name) {
	throw PublishError("devices would get another \"" + Printable(name) + "\" by it");
}

} // namespace

ExpectedTree::ExpectedTree(const Tree& tree, const std::set<std::string>& scripted) {
	for (const TreeFile& file : tree.files) {
		const bool is_scripted = scripted.count(file.name) > 0;
		File& noted = files_[file.name] = {file, is_scripted, fs::last_write_time(file.source), ""};
		const bool is_shared = fs::hard_link_count(file.source) > 1;
		if (!is_shared && !is_scripted) {
			noted.digest = DigestOf(file.source);
			fs::remove(file.source);
		}
	}
}

bool ExpectedTree::IsSame(const File& expected, const TreeFile& result) {
	if (expected.file.executable != result.executable) {
		return false;
	}
	if (!expected.digest.empty()) {
		return expected.file.size == result.size && DigestOf(result.source) == expected.digest;
	}
	return fs::equivalent(expected.file.source, result.source) || SameBytes(expected.file.source, result.source) ||
	       (expected.is_scripted && !FindContentDifference(expected.file.source, result.source));
}

void ExpectedTree::Require(const Tree& result) const {
	for (const auto& [name, expected] : files_) {
		if (expected.digest.empty() && fs::last_write_time(expected.file.source) != expected.time) {
			throw PublishError("devices would write to \"" + Printable(name) + "\", which the package does not name");
		}
	}
	if (result.empty_directories > 0) {
		throw PublishError(
		    "devices would keep " + std::to_string(result.empty_directories) + " empty directories by it");
	}
	for (const TreeFile& file : result.files) {
		const auto expected = files_.find(file.name);
		if (expected == files_.end() || !IsSame(expected->second, file)) {
			RefuseOther(file.name);
		}
	}
	const std::set<std::string> names = NamesOf(result);
	for (const auto& [name, expected] : files_) {
		if (names.count(name) == 0) {
			RefuseOther(name);
		}
	}
}

} // namespace tarn::publisher
