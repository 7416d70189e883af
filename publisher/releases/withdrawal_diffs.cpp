#include "publisher/releases/withdrawal_diffs.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"
#include "publisher/sqlite/sqlite_content.h"

#include <algorithm>
#include <filesystem>
#include <utility>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

std::optional<TreeFile> Find(const Tree& tree, const std::string& name) {
	const auto file = std::lower_bound(tree.files.begin(), tree.files.end(), name,
	    [](const TreeFile& candidate, const std::string& wanted) { return candidate.name < wanted; });
	return file == tree.files.end() || file->name != name ? std::nullopt : std::optional(*file);
}

/** Whether devices get the published content of a database where bytes of their own are expected. */
bool IsSameByContent(const TreeChange& change) {
	return change.before && change.after && change.before->executable == change.after->executable &&
	       !FindContentDifference(change.before->source, change.after->source);
}

} // namespace

void WithdrawalDiffs::Make(const PublishObserver& observer) {
	observer.step("comparing", 0, 1);
	FindChanges();
	observer.step("packing the diff", 0, 1);
	WriteLast();
	for (const DiffChain::Link& link : order_.chain.Links()) {
		if (link.version > order_.target && !link.IsEmptied()) {
			WriteEmpty(link.version);
		} else {
			result_.earlier.push_back(link.version);
		}
	}
	const int first = OldestStart();
	for (int start = first; start <= order_.newest; ++start) {
		observer.step("verifying", static_cast<std::uint64_t>(start - first),
		    static_cast<std::uint64_t>(order_.newest - first + 1));
		if (start == order_.newest || start == order_.target || order_.versions.HasPackage(start)) {
			Prove(start);
		}
	}
}

/**
 * Devices pass the replaced links without a change, so that they have anything that one of these links has changed; all
 * other files are those of the newest version.
 */
void WithdrawalDiffs::FindChanges() {
	const std::string directory = order_.work.Make("newest");
	static_cast<void>(order_.versions.Unpack(order_.newest, directory, order_.work));
	newest_ = ListTree(directory);
	std::set<std::string> names = order_.chain.ChangedNames(order_.target);
	for (const TreeChange& change : CompareTrees(newest_, order_.tree)) {
		names.insert(change.name);
	}
	AddCompanions(names);
	for (const std::string& name : names) {
		changes_.push_back({name, Find(newest_, name), Find(order_.tree, name)});
	}
	if (const auto conflict = FindNameConflict(changes_, newest_, order_.chain.ChangedNames())) {
		throw PublishError(*conflict);
	}
	fs::remove_all(directory);
}

/**
 * A journal fits the published bytes alone: a scripted database beside which a journal changes goes with the journal.
 * Devices refuse the change of a file unless the journal beside the file goes with it.
 */
void WithdrawalDiffs::AddCompanions(std::set<std::string>& names) const {
	for (const std::string& name : order_.chain.State().Scripted()) {
		if (HasCompanion(name, names)) {
			names.insert(name);
		}
	}
	AddJournals(names, order_.tree);
}

/** Directories that a withdrawn version may have brought. */
std::vector<std::string> WithdrawalDiffs::Emptied() const {
	Tree before;
	for (const TreeChange& change : changes_) {
		before.files.push_back({change.name, "", 0, false});
	}
	return EmptiedDirectories(before, order_.tree);
}

void WithdrawalDiffs::WriteLast() {
	Tree content;
	for (std::size_t i = 0; i < changes_.size(); ++i) {
		const TreeChange& change = changes_[i];
		const PatchKind kind = change.after ? PatchKind::kWhole : PatchKind::kNone;
		DiffMember member = {change.name, "", kind};
		if (change.after) {
			member.input_file = InputFileName(i, kind);
			member.size = change.after->size;
			content.files.push_back(
			    {member.input_file, change.after->source, change.after->size, change.after->executable});
		}
		++(!change.after ? result_.deleted : change.before ? result_.replaced : result_.created);
		members_.push_back(std::move(member));
	}
	AddDescription(DescriptionText(members_, Emptied()), order_.work, content);
	Json::Value more(Json::objectValue);
	more[kRestoresKey] = order_.target;
	order_.chain.State().After(members_).ToMetadata(more);
	Package package = {Repository::DiffName(order_.options.id, Version()),
	    ReplacingFile(order_.repository.DiffPath(order_.options.id, Version()))};
	package.size = Write(Version(), content, more, package.file);
	RequireWorthwhile(package.size, order_.full_size);
	result_.package_size = package.size;
	packages_.emplace(Version(), std::move(package));
}

void WithdrawalDiffs::WriteEmpty(int version) {
	Tree content;
	AddDescription(DescriptionText({}), order_.work, content);
	Json::Value more(Json::objectValue);
	more[kWithdrawnByKey] = Version();
	const DiffChain::Link* target = order_.chain.Find(order_.target);
	const ChainState passing = target == nullptr ? ChainState() : ChainState::FromMetadata(target->package.metadata);
	order_.chain.State().Or(passing).ToMetadata(more);
	const std::string name = Repository::NameOf(order_.options.id, {"", version, true, Version()});
	Package package = {name, ReplacingFile(order_.repository.Directory() + "/" + name)};
	package.size = Write(version, content, more, package.file);
	packages_.emplace(version, std::move(package));
}

std::uint64_t WithdrawalDiffs::Write(int version, const Tree& content, Json::Value more, ReplacingFile& file) const {
	PackageInfo info = {order_.options.id, order_.format_version, version, kDiffKind, std::move(more)};
	info.published = order_.published;
	info.more["base_version"] = version - 1;
	AddNotes(order_.options.notes, info.more);
	return WritePackage(content, info, order_.key, order_.options.level, file.Fd(), file.TemporaryPath(),
	    [](std::uint64_t /*files*/, std::uint64_t /*bytes*/) {});
}

/** The oldest version that devices may still have where they begin with empty packages. */
int WithdrawalDiffs::OldestStart() const {
	const auto& links = order_.chain.Links();
	int start = links.empty() ? order_.newest : std::max(order_.target, links.front().version - 1);
	for (const DiffChain::Link* link = order_.chain.Find(start); link != nullptr && link->IsEmptied();) {
		link = order_.chain.Find(--start);
	}
	return start;
}

/** Follows the new chain as a device does that has a version. */
void WithdrawalDiffs::Prove(int start) const {
	const std::string directory = order_.work.Make("device");
	static_cast<void>(order_.versions.Unpack(start, directory, order_.work));
	std::vector<DiffStep> steps;
	for (int version = start; version < Version();) { // The last has no successor.
		++version;
		const auto own = packages_.find(version);
		steps.push_back(
		    {version, own == packages_.end() ? order_.chain.Find(version)->path : own->second.file.TemporaryPath()});
	}
	ProveDiffs(order_.reader, order_.options.id, steps, directory, order_.work);
	const Tree result = ListTree(directory);
	const std::string devices = "devices with version " + std::to_string(start) + " would ";
	if (result.empty_directories > 0) {
		throw PublishError(devices + "keep " + std::to_string(result.empty_directories) + " empty directories by it");
	}
	const ChainState state = order_.chain.State().After(members_);
	for (const TreeChange& difference : CompareTrees(result, order_.tree)) {
		if (!state.IsScripted(difference.name) || !IsSameByContent(difference)) {
			throw PublishError(devices + "get another \"" + Printable(difference.name) + "\" by it");
		}
	}
	fs::remove_all(directory);
}

void WithdrawalDiffs::Commit() {
	for (auto package = packages_.rbegin(); package != packages_.rend(); ++package) {
		const std::string path = order_.repository.Directory() + "/" + package->second.name;
		if (fs::exists(path) && !SameBytes(path, package->second.file.TemporaryPath())) {
			throw PublishError(path + " is there already, with another content, and caches may have it");
		}
		package->second.file.Commit();
	}
}

std::map<int, DiffFile> WithdrawalDiffs::Files(const std::map<int, DiffFile>& previous) const {
	std::map<int, DiffFile> files;
	for (const int version : result_.earlier) {
		files[version] = previous.at(version);
	}
	for (const auto& [version, package] : packages_) {
		files[version] = {LinkTo(order_.options.url, package.name), static_cast<int>(package.size)};
	}
	return files;
}

} // namespace tarn::publisher
