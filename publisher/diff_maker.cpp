#include "publisher/diff_maker.h"

#include "base/sqlite_names.h"
#include "publisher/device.h"
#include "publisher/diff_chain.h"
#include "publisher/diff_verifier.h"
#include "publisher/file_encoder.h"
#include "publisher/parallel.h"
#include "publisher/program.h"
#include "publisher/publish_error.h"
#include "publisher/sqlite_content.h"
#include "publisher/work_directory.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <limits>
#include <numeric>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

std::uint64_t SizeOf(const std::optional<TreeFile>& file) {
	return file ? file->size : 0;
}

bool IsDatabase(const TreeChange& change) {
	return change.after && IsSqliteFile(change.after->source);
}

/** Makes one diff package, step after step. */
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
		WriteDescription();
		DiffResult result = Summarise();
		result.earlier = chain_.Versions();
		result.package_size = Write(archive_fd, path);
		RequireWorthwhile(result.package_size);
		Verify(path);
		return result;
	}

private:
	void Unpack();
	void FindChanges();
	/** Scripted files beside which a journal appears now, whose pages fit the published bytes alone. */
	void AddEndangered();
	/** Flat names that SQLite's companions of a working copy must not meet. */
	std::set<std::string> FlatNames() const;
	std::vector<EncodingTask> Tasks();
	void Encode();
	void WriteDescription();
	DiffResult Summarise() const;
	std::uint64_t Write(int archive_fd, const std::string& path);
	void RequireWorthwhile(std::uint64_t size) const;
	void Verify(const std::string& path);

	std::string NewTree() const { return work_ / "new"; }
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

void DiffMaker::Unpack() {
	observer_.step("unpacking", 0, 2);
	const std::string old_package = order_.repository.PackagePath(order_.options.id, order_.previous.data_version);
	const PackageInfo old_info = {order_.options.id, "", order_.previous.data_version};
	PackageReader::Unpack(order_.reader.Open(old_package, old_info), old_package, work_.Make("old"));
	observer_.step("unpacking", 1, 2);
	// What devices get by the full package, whatever has become of the published tree meanwhile.
	const PackageInfo new_info = {order_.options.id, "", version_};
	PackageReader::Unpack(order_.reader.Open(order_.new_package, new_info), order_.new_package, work_.Make("new"));
	observer_.step("comparing", 0, 1);
	before_ = ListTree(OldTree());
	after_ = ListTree(NewTree());
}

void DiffMaker::FindChanges() {
	changes_ = CompareTrees(before_, after_);
	AddEndangered();
	if (const auto conflict = FindNameConflict(changes_, before_, chain_.ChangedNames())) {
		throw PublishError(*conflict);
	}
	for (const TreeChange& change : changes_) {
		if (IsDatabase(change)) {
			databases_.insert(change.name);
		}
	}
}

void DiffMaker::AddEndangered() {
	std::set<std::string> changed;
	for (const TreeChange& change : changes_) {
		changed.insert(change.name);
	}
	std::set<std::string> names;
	for (const TreeFile& file : after_.files) {
		names.insert(file.name);
	}
	for (const TreeFile& file : after_.files) {
		const bool endangered = chain_.State().Scripted().count(file.name) > 0 && changed.count(file.name) == 0 &&
		                        std::any_of(kSqliteCompanions.begin(), kSqliteCompanions.end(),
		                            [&](const char* suffix) { return names.count(file.name + suffix) > 0; });
		if (endangered) {
			TreeFile old = file;
			old.source = OldTree() + "/" + file.name;
			changes_.push_back({file.name, old, file});
		}
	}
	std::sort(changes_.begin(), changes_.end(),
	    [](const TreeChange& left, const TreeChange& right) { return left.name < right.name; });
}

std::set<std::string> DiffMaker::FlatNames() const {
	std::set<std::string> names = chain_.ChangedNames();
	for (const Tree* tree : {&before_, &after_}) {
		for (const TreeFile& file : tree->files) {
			names.insert(file.name);
		}
	}
	std::set<std::string> flat;
	std::transform(names.begin(), names.end(), std::inserter(flat, flat.end()), WorkingCopyName);
	return flat;
}

std::vector<EncodingTask> DiffMaker::Tasks() {
	std::set<std::string> replayed;
	std::set_intersection(databases_.begin(), databases_.end(), chain_.State().Scripted().begin(),
	    chain_.State().Scripted().end(), std::inserter(replayed, replayed.end()));
	std::map<std::string, std::string> lineages = chain_.ReplayScripts(replayed, work_);
	const std::set<std::string> flat_names = FlatNames();
	const bool has_room = chain_.State().HasRoomFor(databases_);
	std::vector<EncodingTask> tasks;
	for (const TreeChange& change : changes_) {
		const FileLineage lineage = chain_.State().Of(change.name);
		const bool stands_alone = std::none_of(kSqliteCompanions.begin(), kSqliteCompanions.end(),
		    [&](const char* suffix) { return flat_names.count(WorkingCopyName(change.name) + suffix) > 0; });
		EncodingTask task;
		task.change = change;
		task.may_patch = lineage != FileLineage::kScripted;
		task.may_script = databases_.count(change.name) > 0 && stands_alone && lineage != FileLineage::kPatched &&
		                  (has_room || lineage == FileLineage::kScripted);
		task.lineage = lineages[change.name];
		tasks.push_back(std::move(task));
	}
	return tasks;
}

void DiffMaker::Encode() {
	const std::vector<EncodingTask> tasks = Tasks();
	Encoders encoders = {FindProgram("xdelta3"), FindProgram("sqldiff"), order_.options.level};
	const auto needs = [&tasks](bool EncodingTask::*permission) {
		return std::any_of(tasks.begin(), tasks.end(),
		    [&](const EncodingTask& task) { return task.*permission && task.change.before && task.change.after; });
	};
	if (!encoders.vcdiff && needs(&EncodingTask::may_patch)) {
		observer_.warn("xdelta3 is not installed: changed files are published whole.");
	}
	if (!encoders.script && needs(&EncodingTask::may_script)) {
		observer_.warn("sqldiff is not installed: databases are published without SQL scripts.");
	}
	std::vector<std::size_t> order(tasks.size());
	std::iota(order.begin(), order.end(), 0);
	std::stable_sort(order.begin(), order.end(), [&tasks](std::size_t left, std::size_t right) {
		return SizeOf(tasks[left].change.after) > SizeOf(tasks[right].change.after);
	});
	encoded_.resize(tasks.size());
	observer_.step("encoding", 0, tasks.size());
	DoInParallel(
	    order,
	    [&](std::size_t index) {
		    const std::string scratch = work_.Make("encoding/" + std::to_string(index));
		    encoded_[index] = EncodeFile(tasks[index], encoders, scratch);
	    },
	    [&](std::size_t done) { observer_.step("encoding", done, tasks.size()); });
	for (const EncodedFile& file : encoded_) {
		if (!file.warning.empty()) {
			observer_.warn(file.warning + ".");
		}
	}
}

void DiffMaker::WriteDescription() {
	for (std::size_t i = 0; i < changes_.size(); ++i) {
		const PatchKind kind = encoded_[i].kind;
		DiffMember member = {changes_[i].name, OperationOf(kind), "", kind};
		if (kind != PatchKind::kNone) {
			member.input_file = InputFileName(i, kind);
			member.size = fs::file_size(encoded_[i].input);
		}
		members_.push_back(std::move(member));
	}
	std::ofstream description(work_ / kDescriptionName, std::ios::binary);
	if (!(description << DescriptionText(members_, EmptiedDirectories(before_, after_))).flush()) {
		throw PublishError("the package's description could not be written");
	}
}

DiffResult DiffMaker::Summarise() const {
	DiffResult result;
	for (std::size_t i = 0; i < members_.size(); ++i) {
		switch (members_[i].kind) {
		case PatchKind::kWhole:
			++(changes_[i].before ? result.replaced : result.created);
			break;
		case PatchKind::kVcdiff:
			++result.patched;
			break;
		case PatchKind::kScript:
			++result.scripted;
			break;
		case PatchKind::kNone:
			++result.deleted;
			break;
		case PatchKind::kEmptied:
			break;
		}
	}
	return result;
}

std::uint64_t DiffMaker::Write(int archive_fd, const std::string& path) {
	Tree content;
	for (std::size_t i = 0; i < members_.size(); ++i) {
		if (members_[i].kind != PatchKind::kNone) {
			const bool executable = members_[i].kind == PatchKind::kWhole && changes_[i].after->executable;
			content.files.push_back({members_[i].input_file, encoded_[i].input, members_[i].size, executable});
		}
	}
	const std::string description = work_ / kDescriptionName;
	content.files.push_back({kDescriptionName, description, fs::file_size(description), false});
	PackageInfo info = {order_.options.id, order_.options.format_version, version_, kDiffKind};
	info.published = order_.published;
	info.more["base_version"] = order_.previous.data_version;
	chain_.State().After(members_, databases_).ToMetadata(info.more);
	observer_.step("packing the diff", 0, 1);
	return WritePackage(content, info, order_.key, order_.options.level, archive_fd, path,
	    [](std::uint64_t /*files*/, std::uint64_t /*bytes*/) {});
}

void DiffMaker::RequireWorthwhile(std::uint64_t size) const {
	if (size >= order_.new_package_size) {
		throw PublishError("it would be no smaller than the full package, " + std::to_string(size) + " of " +
		                   std::to_string(order_.new_package_size) + " bytes");
	}
	if (size > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
		throw PublishError("it would have " + std::to_string(size) + " bytes, more than the document can say");
	}
}

void DiffMaker::Verify(const std::string& path) {
	observer_.step("verifying", 0, 1);
	fs::remove_all(work_ / "encoding");
	const std::string package = work_.Make("package");
	const PackageInfo info = {order_.options.id, "", version_, kDiffKind};
	PackageReader::Unpack(order_.reader.Open(path, info), path, package);
	std::set<std::string> scripted;
	for (const DiffMember& member : members_) {
		if (member.kind == PatchKind::kScript) {
			scripted.insert(member.name);
		}
	}
	// Nobody needs the old tree any more.
	VerifyDiff(package, OldTree(), work_.Make("copies"), after_, scripted);
}

} // namespace

DiffResult MakeDiff(const DiffOrder& order, int archive_fd, const std::string& path, const PublishObserver& observer) {
	return DiffMaker(order, observer).Make(archive_fd, path);
}

} // namespace tarn::publisher
