#include "publisher/diff/diff_maker.h"

#include "publisher/common/files.h"
#include "publisher/common/program.h"
#include "publisher/common/publish_error.h"
#include "publisher/diff/diff_chain.h"
#include "publisher/diff/expected_tree.h"
#include "publisher/diff/file_encoder.h"
#include "publisher/packages/device.h"
#include "publisher/sqlite/sqlite_content.h"

#include <algorithm>
#include <filesystem>
#include <limits>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

bool IsDatabase(const TreeChange& change) {
	return change.after && IsSqliteFile(change.after->source);
}

/** The steps of MakeDiff(). */
class DiffMaker {
public:
	DiffMaker(const DiffOrder& order, const PublishObserver& observer)
	    : order_(order),
	      observer_(observer),
	      work_(order.repository.Directory()),
	      chain_(order.repository, order.reader, order.options.id, order.previous),
	      version_(order.previous.data_version + 1) {}

	DiffResult Make(int archive_fd, const std::string& path) {
		Unpack();
		FindChanges();
		Encode();
		ListMembers();
		DiffResult result = Summarise();
		for (const DiffChain::Link& link : chain_.Links()) {
			result.earlier.push_back(link.version);
		}
		result.package_size = Write(archive_fd, path);
		RequireWorthwhile(result.package_size, order_.new_package_size);
		Verify(path);
		return result;
	}

private:
	void Unpack() {
		observer_.step("unpacking", 0, 2);
		const std::string& id = order_.options.id;
		order_.reader.Unpack(
		    order_.repository.PackagePath(id, version_ - 1), {id, "", version_ - 1}, work_.Make("old"));
		observer_.step("unpacking", 1, 2);
		// Not the published tree, which may have changed meanwhile. What both versions have takes space once.
		order_.reader.UnpackNextTo(order_.new_package, {id, "", version_}, work_.Path(), "new", "old");
		observer_.step("comparing", 0, 1);
		before_ = ListTree(OldTree());
		after_ = ListTree(work_ / "new");
	}

	void FindChanges() {
		changes_ = CompareTrees(before_, after_);
		AddUnchanged();
		if (const auto conflict = FindNameConflict(changes_, before_, chain_.ChangedNames())) {
			throw PublishError(*conflict);
		}
		for (const TreeChange& change : changes_) {
			if (IsDatabase(change)) {
				databases_.insert(change.name);
			}
		}
	}

	/**
	 * Adds scripted files beside which a journal appears now, whose pages fit the published bytes alone, and journals
	 * without which devices would refuse the change of the file beside them.
	 */
	void AddUnchanged() {
		std::set<std::string> changed;
		for (const TreeChange& change : changes_) {
			changed.insert(change.name);
		}
		std::set<std::string> named = changed;
		const std::set<std::string> names = NamesOf(after_);
		for (const std::string& name : names) {
			if (chain_.State().IsScripted(name) && HasCompanion(name, names)) {
				named.insert(name);
			}
		}
		AddJournals(named, after_);
		for (const TreeFile& file : after_.files) {
			if (named.count(file.name) > 0 && changed.count(file.name) == 0) {
				TreeFile old = file;
				old.source = OldTree() + "/" + file.name;
				changes_.push_back({file.name, old, file});
			}
		}
		std::sort(changes_.begin(), changes_.end(),
		    [](const TreeChange& left, const TreeChange& right) { return left.name < right.name; });
	}

	/** The names of working copies, which SQLite's companions of another working copy must not meet. */
	std::set<std::string> WorkingCopyNames() const {
		std::set<std::string> names = chain_.ChangedNames();
		names.merge(NamesOf(before_));
		names.merge(NamesOf(after_));
		std::set<std::string> copies;
		std::transform(names.begin(), names.end(), std::inserter(copies, copies.end()), WorkingCopyName);
		return copies;
	}

	std::vector<EncodingTask> Tasks() {
		std::set<std::string> replayed;
		std::set_intersection(databases_.begin(), databases_.end(), chain_.State().Scripted().begin(),
		    chain_.State().Scripted().end(), std::inserter(replayed, replayed.end()));
		std::map<std::string, std::string> lineages = chain_.ReplayScripts(replayed, work_);
		const std::set<std::string> copies = WorkingCopyNames();
		const bool has_room = chain_.State().HasRoomFor(databases_);
		std::vector<EncodingTask> tasks;
		for (const TreeChange& change : changes_) {
			const bool is_scripted = chain_.State().IsScripted(change.name);
			const bool stands_alone = !HasCompanion(WorkingCopyName(change.name), copies);
			EncodingTask task;
			task.change = change;
			task.is_database = databases_.count(change.name) > 0;
			task.may_patch = !is_scripted;
			task.may_script = task.is_database && stands_alone && (has_room || is_scripted);
			task.past = chain_.CostsOf(change.name);
			task.lineage = lineages[change.name];
			tasks.push_back(std::move(task));
		}
		return tasks;
	}

	void Encode() {
		const std::vector<EncodingTask> tasks = Tasks();
		constexpr int kComparingLevel = 12; // Sizes are compared as well by it, and in much less time.
		const Encoders encoders = {FindProgram("xdelta3"), std::min(order_.options.level, kComparingLevel),
		    static_cast<std::uint64_t>(order_.options.memory_mib) << 20U};
		const bool needs_patches = std::any_of(tasks.begin(), tasks.end(),
		    [](const EncodingTask& task) { return task.may_patch && task.change.before && task.change.after; });
		if (!encoders.vcdiff && needs_patches) {
			observer_.warn("xdelta3 is not installed: changed files are published whole.");
		}
		observer_.step("encoding", 0, tasks.size());
		encoded_ = EncodeFiles(
		    tasks, encoders, work_, [&](std::size_t done) { observer_.step("encoding", done, tasks.size()); });
		for (const EncodedFile& file : encoded_) {
			if (!file.warning.empty()) {
				observer_.warn(file.warning + ".");
			}
		}
	}

	void ListMembers() {
		for (std::size_t i = 0; i < changes_.size(); ++i) {
			const PatchKind kind = encoded_[i].kind;
			DiffMember member = {changes_[i].name, "", kind};
			if (kind != PatchKind::kNone) {
				member.input_file = InputFileName(i, kind);
				member.size = fs::file_size(encoded_[i].input);
			}
			members_.push_back(std::move(member));
		}
	}

	DiffResult Summarise() const {
		const auto count = [this](PatchKind kind) {
			return static_cast<std::uint64_t>(std::count_if(
			    members_.begin(), members_.end(), [kind](const DiffMember& member) { return member.kind == kind; }));
		};
		DiffResult result;
		result.created = static_cast<std::uint64_t>(
		    std::count_if(changes_.begin(), changes_.end(), [](const TreeChange& change) { return !change.before; }));
		result.replaced = count(PatchKind::kWhole) - result.created;
		result.patched = count(PatchKind::kVcdiff);
		result.scripted = count(PatchKind::kScript);
		result.deleted = count(PatchKind::kNone);
		return result;
	}

	std::uint64_t Write(int archive_fd, const std::string& path) {
		Tree content;
		for (std::size_t i = 0; i < members_.size(); ++i) {
			if (members_[i].kind != PatchKind::kNone) {
				const bool executable = members_[i].kind == PatchKind::kWhole && changes_[i].after->executable;
				content.files.push_back({members_[i].input_file, encoded_[i].input, members_[i].size, executable});
			}
		}
		AddDescription(DescriptionText(members_, EmptiedDirectories(before_, after_)), work_, content);
		PackageInfo info = {order_.options.id, order_.options.format_version, version_, kDiffKind};
		info.published = order_.published;
		info.more["base_version"] = order_.previous.data_version;
		AddNotes(order_.options.notes, info.more);
		chain_.State().After(members_).ToMetadata(info.more);
		PlansToMetadata(Plans(), info.more);
		observer_.step("packing the diff", 0, 1);
		return WritePackage(content, info, order_.key, order_.options.level, archive_fd, path,
		    [](std::uint64_t /*files*/, std::uint64_t /*bytes*/) {});
	}

	std::map<std::string, Json::Value> Plans() const {
		std::map<std::string, Json::Value> plans;
		for (std::size_t i = 0; i < changes_.size(); ++i) {
			if (databases_.count(changes_[i].name) > 0 && !encoded_[i].plan.expected.empty()) {
				plans[changes_[i].name] = PlanToJson(encoded_[i].costs, encoded_[i].plan);
			}
		}
		return plans;
	}

	/**
	 * Applies the package to the old tree as devices do, and requires the new tree: the same names, bytes and execute
	 * permissions, for files changed by scripts the same content, and no empty directory.
	 */
	void Verify(const std::string& path) {
		observer_.step("verifying", 0, 1);
		fs::remove_all(work_ / "encoding");
		const ExpectedTree expected(after_, ChainState().After(members_).Scripted());
		// Nothing else needs the old tree.
		ProveDiffs(order_.reader, order_.options.id, {{version_, path}}, OldTree(), work_);
		expected.Require(ListTree(OldTree()));
	}

	std::string OldTree() const { return work_ / "old"; }

	const DiffOrder& order_;
	const PublishObserver& observer_;
	WorkDirectory work_;
	DiffChain chain_;
	int version_;
	Tree before_;
	Tree after_;
	std::vector<TreeChange> changes_;
	std::set<std::string> databases_; // of the changed files
	std::vector<EncodedFile> encoded_;
	std::vector<DiffMember> members_;
};

} // namespace

void RequireWorthwhile(std::uint64_t size, std::uint64_t full_size) {
	if (size >= full_size) {
		throw PublishError("it would be no smaller than the full package, " + std::to_string(size) + " of " +
		                   std::to_string(full_size) + " bytes");
	}
	if (size > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
		throw PublishError("it would have " + std::to_string(size) + " bytes, more than the document can say");
	}
}

DiffResult MakeDiff(const DiffOrder& order, int archive_fd, const std::string& path, const PublishObserver& observer) {
	return DiffMaker(order, observer).Make(archive_fd, path);
}

} // namespace tarn::publisher
