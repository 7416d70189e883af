#include "publisher/releases/check_repository.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/releases/prune.h"
#include "publisher/repository/document_sentences.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/repository_listing.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** A package that a document names. */
struct Named {
	std::string document;
	std::string id;
	bool is_diff = false;
	int version = 0;
	std::string link;
	int size = 0; // of a diff package

	std::string Where() const { return "database_info/" + document + ", " + id; }
	std::string Name() const {
		return is_diff ? Repository::DiffName(id, version, {link, size}) : Repository::PackageName(id, version);
	}
};

/** What was found out about a package, once for all documents. */
struct Examined {
	std::string problem; // empty when there is none
	std::uint64_t size = 0;
};

/** The steps of CheckRepository(). */
class RepositoryCheck {
public:
	RepositoryCheck(const RepositoryCheckOptions& options, const PublishObserver& observer)
	    : options_(options), observer_(observer), reader_(options.keys), listing_(ListRepository(options.repository)) {}

	CheckResult Run() {
		result_.is_publishing = listing_.is_publishing;
		CheckDocuments();
		std::uint64_t done = 0;
		for (const Named& named : named_) {
			observer_.step("checking packages", done++, named_.size());
			CheckPackage(named);
			CheckLink(named);
		}
		CompareLinks();
		for (const auto& [name, examined] : examined_) {
			++result_.packages;
			result_.bytes += examined.size;
		}
		if (!listing_.is_publishing) {
			JudgeTheRest();
		}
		return std::move(result_);
	}

private:
	void Add(Severity severity, const std::string& where, const std::string& what) {
		++(severity == Severity::kBroken ? result_.broken : result_.untidy);
		if (result_.problems.size() < kMostProblems) {
			result_.problems.push_back({severity, where, WithoutEnd(what)});
		}
	}
	void AddBroken(const std::string& where, const std::string& what) { Add(Severity::kBroken, where, what); }
	void AddUntidy(const std::string& path, const std::string& what) {
		Add(Severity::kUntidy, fs::path(path).lexically_relative(options_.repository).string(), what);
	}

	void CheckDocuments() {
		result_.documents = listing_.documents.size() + listing_.damaged.size();
		if (result_.documents == 0) {
			AddBroken("database_info", "there is no document");
		} else {
			RequireDocuments();
		}
		for (const auto& [name, sentence] : listing_.damaged) {
			AddBroken("database_info/" + name, sentence);
		}
		for (const auto& [name, document] : listing_.documents) {
			std::error_code gone; // Somebody may take it away meanwhile.
			const std::uintmax_t size = fs::file_size(options_.repository + "/database_info/" + name, gone);
			if (const std::string problem = gone ? "" : SizeProblem(size); !problem.empty()) {
				AddBroken("database_info/" + name, problem);
			}
			for (const std::string& id : document.Ids()) {
				++result_.entries;
				CheckEntry(name, document, id);
			}
		}
	}

	void RequireDocuments() {
		for (const std::string& name : std::set<std::string>(options_.documents.begin(), options_.documents.end())) {
			if (listing_.documents.count(name) + listing_.damaged.count(name) == 0) {
				AddBroken("database_info/" + name,
				    "the document is missing; where devices ask for others only, --document names these");
			}
		}
	}

	void CheckEntry(const std::string& name, const Document& document, const std::string& id) {
		const std::string where = "database_info/" + name + ", " + id;
		try {
			const Entry entry = *document.Find(id);
			CheckMembers(where, document.EntryJson(id), entry);
			CheckChain(where, entry);
			entries_[id][name] = entry;
			named_.push_back({name, id, false, entry.data_version, entry.download_link});
			for (const auto& [version, file] : entry.diff_files) {
				named_.push_back({name, id, true, version, file.download_link, file.file_size});
			}
		} catch (const PublishError& error) {
			AddBroken(where, error.what());
			unreadable_.insert(id);
		}
	}

	void CheckMembers(const std::string& where, const Json::Value& value, const Entry& entry) {
		if (!value["last_fetch_time"].isInt()) {
			AddBroken(where, "\"last_fetch_time\" is no number that devices read");
		}
		const Json::Value& diffs = value["diff_files"];
		if (!diffs.isObject() || diffs.size() != entry.diff_files.size()) {
			AddBroken(where, "\"diff_files\" holds what devices cannot read");
		}
	}

	/** Devices take diff packages only where none is missing up to the newest version. */
	void CheckChain(const std::string& where, const Entry& entry) {
		if (entry.diff_files.empty()) {
			return;
		}
		const auto last = entry.diff_files.rbegin()->first;
		if (last != entry.data_version) {
			AddBroken(where, "the diff packages lead to version " + std::to_string(last) + " and not to version " +
			                     std::to_string(entry.data_version));
		}
		for (int version = entry.diff_files.begin()->first; version < last; ++version) {
			if (entry.diff_files.count(version) == 0) {
				AddBroken(where, "no diff package leads to version " + std::to_string(version));
				return;
			}
		}
	}

	void CheckPackage(const Named& named) {
		const Examined& examined = Examine(named);
		std::string problem = examined.problem;
		if (problem.empty() && named.is_diff && examined.size != static_cast<std::uint64_t>(named.size)) {
			problem = "the package " + named.Name() + " has " + std::to_string(examined.size) +
			          " bytes, and the document says " + std::to_string(named.size);
		}
		if (!problem.empty() && IsStillNamed(named)) {
			AddBroken(named.Where(), problem);
		}
	}

	void CheckLink(const Named& named) {
		if (!EndsWith(named.link, "/" + named.Name()) || !StartsWith(named.link, "http")) {
			AddBroken(named.Where(), "the link \"" + Printable(named.link) + "\" does not lead to " + named.Name());
		} else {
			bases_[named.document].Add(named.link, named.Name());
		}
	}

	/** Only devices find out which of several URLs does not lead here. */
	void CompareLinks() {
		for (const auto& [document, bases] : bases_) {
			if (const std::string difference = bases.Difference(); !difference.empty()) {
				Add(Severity::kUntidy, "database_info/" + document,
				    "its links begin with different URLs: " + difference +
				        "; unless all of them lead here, mend the links by restore --force --url URL");
			}
		}
	}

	const Examined& Examine(const Named& named) {
		const auto [place, is_new] = examined_.try_emplace(named.Name());
		Examined& examined = place->second;
		if (is_new) {
			try {
				examined.size = Open(named).Head().FileSize();
			} catch (const PublishError& error) {
				examined.problem = error.what();
			}
		}
		return examined;
	}

	archive::ArchiveFile Open(const Named& named) const {
		const std::string path = options_.repository + "/" + named.Name();
		const PackageInfo expected = {named.id, "", named.version, named.is_diff ? kDiffKind : "full"};
		return options_.keys.empty() ? PackageReader::OpenUnchecked(path, expected) : reader_.Open(path, expected);
	}

	/** Whether a publisher has left the entry as it was; else it took away what the entry named. */
	bool IsStillNamed(const Named& named) const {
		try {
			const Document now(options_.repository + "/database_info/" + named.document);
			return now.EntryJson(named.id) == listing_.documents.at(named.document).EntryJson(named.id);
		} catch (const PublishError&) {
			return true;
		}
	}

	/** What lies around, which only a repository at rest can tell. */
	void JudgeTheRest() {
		for (const std::string& path : listing_.leftovers) {
			AddUntidy(path, "a publisher that was killed left it; the next publisher or prune removes it");
		}
		for (const std::string& path : listing_.strangers) {
			AddUntidy(path, "no publisher makes such a file");
		}
		for (const auto& [id, files] : listing_.packages) {
			const bool is_known = listing_.damaged.empty() && unreadable_.count(id) == 0;
			if (is_known && !files.empty()) {
				JudgePackages(id, files);
			}
		}
		if (listing_.damaged.empty() && !IsUnreadable()) { // Else prune refuses.
			CountRemovable();
		}
	}

	/** Whether prune cannot tell what is needed of a database. */
	bool IsUnreadable() const {
		return std::any_of(unreadable_.begin(), unreadable_.end(),
		    [this](const std::string& id) { return fs::is_directory(options_.repository + "/packages/" + id); });
	}

	void CountRemovable() {
		PruneResult removable;
		for (const std::string& path : listing_.leftovers) {
			removable.Take(path);
		}
		for (const auto& [id, entries] : entries_) {
			const std::vector<PackageFile>& files = listing_.packages[id];
			for (const std::string& path : UnneededPackages({id, entries, files}, files, listing_.withdrawn[id])) {
				removable.Take(path);
			}
		}
		result_.removable_files = removable.files.size();
		result_.removable_bytes = removable.bytes;
	}

	void JudgePackages(const std::string& id, const std::vector<PackageFile>& files) {
		const auto entries = entries_.find(id);
		if (entries == entries_.end()) {
			AddUntidy(fs::path(files.front().path).parent_path().string(),
			    "no document names this database, so its next publication is refused");
			return;
		}
		const NeededPackages needed(id, entries->second, files);
		for (const PackageFile& file : files) {
			if (!needed.IsNamed(file) && needed.IsAboveAll(file)) {
				AddUntidy(file.path,
				    "no document names it: a publisher was killed before its document, or the document is an old copy");
			} else if (file.is_diff && !needed.IsNamed(file)) {
				AddUntidy(file.path, "no document names it");
			}
		}
	}

	const RepositoryCheckOptions& options_;
	const PublishObserver& observer_;
	PackageReader reader_;
	RepositoryListing listing_;
	std::map<std::string, std::map<std::string, Entry>> entries_; // by database, then by document
	std::set<std::string> unreadable_;                            // databases of which an entry cannot be read
	std::vector<Named> named_;
	std::map<std::string, Examined> examined_; // by the package's name
	std::map<std::string, LinkBases> bases_;   // by document
	CheckResult result_;
};

} // namespace

CheckResult CheckRepository(const RepositoryCheckOptions& options, const PublishObserver& observer) {
	for (const std::string& document : options.documents) {
		CheckWord("--document", document);
	}
	RequireRepository(options.repository);
	return RepositoryCheck(options, observer).Run();
}

} // namespace tarn::publisher
