#include "publisher/mirror/mirror.h"

#include "base/text.h"
#include "base/unique_fd.h"
#include "publisher/common/publish_error.h"
#include "publisher/mirror/mirror_snapshot.h"
#include "publisher/mirror/store.h"
#include "publisher/repository/document.h"
#include "publisher/repository/option_checks.h"

#include <filesystem>
#include <map>
#include <set>
#include <utility>

namespace tarn::publisher {

namespace {

constexpr int kMostRounds = 5;

/** Packages never change under their names. Another size, or a younger file, is one that was made again by hand. */
bool IsCarried(const CarriedFiles& stored, const std::string& name, const CarriedFile& file) {
	const auto there = stored.find(name);
	return there != stored.end() && there->second.size == file.size &&
	       (!there->second.time || *there->second.time >= file.time);
}

TransferProgress ProgressOf(const PublishObserver& observer) {
	return [&observer](std::uint64_t done, std::uint64_t all) {
		observer.step("carrying packages: " + HumanSize(done) + " of " + HumanSize(all), 0, 1);
	};
}

[[noreturn]] void FailWithoutInRepository(const std::string& lack) {
	throw BrokenRepository("No document was written and nothing deleted: the repository lacks " + lack + ".");
}

[[noreturn]] void FailWithoutInStore(const std::string& lack) {
	throw PublishError(
	    "No document was written and nothing deleted: after packages were carried, the store lacks " + lack + ".");
}

/** The steps of Mirror(). */
class Carrier {
public:
	Carrier(const MirrorOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      repository_(std::filesystem::canonical(options.repository).string()),
	      lock_(LockMirrors(repository_, observer.waiting)),
	      store_(options.store, ProgressOf(observer)) {}

	MirrorResult Run() {
		while (!TryOnce()) {
			if (result_.rounds == kMostRounds) {
				throw PublishError("The repository " + repository_ + " changed " + std::to_string(kMostRounds) +
				                   " times while packages were carried; the store keeps what it offered.");
			}
		}
		return std::move(result_);
	}

private:
	/** False when a publisher has changed the repository so that it has to be looked at again. */
	bool TryOnce() {
		const int rounds = result_.rounds + 1;
		result_ = {};
		result_.rounds = rounds;
		snapshot_ = TakeSnapshot(repository_);
		if (!HasAll(snapshot_.packages, FailWithoutInRepository)) {
			return false;
		}
		observer_.step("listing the store", 0, 1);
		stored_ = store_.List();
		ReadStoredDocuments();
		RequireAhead();
		if (!CarryPackages()) {
			return false;
		}
		WriteDocuments();
		Delete();
		return true;
	}

	/** Whether each named package is there. If not, a publisher must have replaced the documents; else it fails. */
	bool HasAll(const CarriedFiles& present, void (*fail)(const std::string& lack)) const {
		const std::string missing = MissingPackage(snapshot_, present);
		if (!missing.empty() && IsCurrent(snapshot_, repository_)) {
			fail(missing);
		}
		return missing.empty();
	}

	void ReadStoredDocuments() {
		stored_documents_.clear();
		for (const auto& [name, file] : stored_) {
			const bool is_draft = IsServersDraft(name) && snapshot_.documents.count(name) == 0;
			if (StartsWith(name, std::string(kDocuments) + "/") && !is_draft) {
				stored_documents_[name] = store_.Read(name);
			}
		}
	}

	/** A repository that lacks what the store offers is an old copy, or another one. */
	void RequireAhead() const {
		for (const auto& [name, text] : stored_documents_) {
			if (options_.force) {
				return;
			}
			if (snapshot_.documents.count(name) == 0) {
				Refuse(name, "the repository has no such document");
			}
			RequireAhead(name, text);
		}
	}

	void RequireAhead(const std::string& name, const std::string& text) const {
		try {
			const Document document = Document::FromText(name, text);
			for (const std::string& id : document.Ids()) {
				const int version = document.Find(id)->data_version;
				const auto newest = snapshot_.newest.find(id);
				if (newest == snapshot_.newest.end() || newest->second < version) {
					Refuse(name, "it names version " + std::to_string(version) + " of " + id +
					                 ", and no document of the repository does so or names a later one");
				}
			}
		} catch (const DamagedDocument&) { // NOLINT(bugprone-empty-catch): it is replaced by a whole one
		}
	}

	[[noreturn]] void Refuse(const std::string& document, const std::string& reason) const {
		throw PublishError(
		    "Nothing was carried and nothing deleted, because the store offers more than the repository " +
		    repository_ + ": of " + document + " at " + options_.store + ", " + reason +
		    ". If that is right, use --force.");
	}

	/** What the store has by its size and in truth has not is no longer taken for stored. False as TryOnce() has it. */
	bool ComparePackages() {
		std::vector<std::string> names;
		for (const auto& [name, file] : snapshot_.packages) {
			if (IsCarried(stored_, name, file) && compared_.count(name) == 0) {
				names.push_back(name);
			}
		}
		if (names.empty()) {
			return true;
		}
		observer_.step("comparing packages", 0, 1);
		const Comparison found = store_.Compare(repository_, names);
		compared_.insert(found.same.begin(), found.same.end());
		for (const std::string& name : found.differing) {
			stored_.erase(name);
		}
		if (found.same.size() + found.differing.size() == names.size()) {
			return true;
		}
		if (!IsCurrent(snapshot_, repository_)) {
			return false;
		}
		throw PublishError("Packages at " + options_.store + " cannot be compared: " + found.run.Description() + ".");
	}

	bool CarryPackages() {
		if (options_.compares && !ComparePackages()) {
			return false;
		}
		for (const auto& [name, file] : snapshot_.packages) {
			if (IsCarried(stored_, name, file)) {
				++result_.unchanged_packages;
			} else {
				result_.carried.push_back(name);
				result_.bytes += file.size;
			}
		}
		return result_.carried.empty() || options_.dry_run || CarryChosen();
	}

	bool CarryChosen() {
		observer_.step("carrying packages", 0, 1);
		const RcloneResult run = store_.Carry(repository_, result_.carried);
		if (!run.IsDone()) {
			if (!IsCurrent(snapshot_, repository_)) {
				return false;
			}
			throw PublishError("Packages could not be carried to " + options_.store + ": " + run.Description() + ".");
		}
		stored_ = store_.List();
		CarriedFiles whole;
		for (const auto& [name, file] : stored_) {
			const auto own = snapshot_.packages.find(name);
			if (own != snapshot_.packages.end() && own->second.size == file.size) {
				whole[name] = file;
			}
		}
		return HasAll(whole, FailWithoutInStore);
	}

	void WriteDocuments() {
		for (const auto& [name, text] : snapshot_.documents) {
			const auto stored = stored_documents_.find(name);
			if (stored != stored_documents_.end() && stored->second == text) {
				++result_.unchanged_documents;
				continue;
			}
			result_.written.push_back(name);
			if (!options_.dry_run) {
				observer_.step("writing documents", 0, 1);
				store_.Write(name, text);
				RequireWritten(name, text);
			}
		}
	}

	/** Nothing may be deleted while the store still offers the old document, whatever the reason. */
	void RequireWritten(const std::string& name, const std::string& text) const {
		if (store_.Read(name) != text) {
			throw PublishError("Nothing was deleted: " + options_.store + " does not return the document " + name +
			                   " as it was written.");
		}
	}

	void Delete() {
		for (const auto& [name, text] : stored_documents_) {
			if (snapshot_.documents.count(name) == 0) {
				result_.deleted.push_back(name);
			}
		}
		if (options_.keeps_all) {
			result_.deleted.clear();
			return;
		}
		if (!options_.dry_run) {
			store_.Remove(result_.deleted);
		}
		DeletePackagesAndDrafts();
	}

	void DeletePackagesAndDrafts() {
		std::vector<std::string> packages;
		for (const auto& [name, file] : stored_) {
			const bool is_wanted = snapshot_.packages.count(name) != 0 || snapshot_.named.count(name) != 0 ||
			                       snapshot_.documents.count(name) != 0;
			if (!is_wanted && (IsPackageName(name) || IsServersDraft(name))) {
				packages.push_back(name);
			}
		}
		if (!options_.dry_run) {
			observer_.step("deleting packages", 0, 1);
			store_.Remove(packages);
		}
		result_.deleted.insert(result_.deleted.end(), packages.begin(), packages.end());
	}

	const MirrorOptions& options_;
	const PublishObserver& observer_;
	std::string repository_;
	UniqueFd lock_;
	Store store_;
	Snapshot snapshot_;
	CarriedFiles stored_;
	std::set<std::string> compared_; // and found to be the same, in any round
	std::map<std::string, std::string> stored_documents_;
	MirrorResult result_;
};

void CheckStore(const std::string& store) {
	if (store.find(':') == std::string::npos || StartsWith(store, "-")) {
		throw UsageError("STORE \"" + Printable(store) + "\" is no remote of rclone, such as NAME:BUCKET/PATH.");
	}
}

} // namespace

MirrorResult Mirror(const MirrorOptions& options, const PublishObserver& observer) {
	CheckStore(options.store);
	RequireRepository(options.repository);
	return Carrier(options, observer).Run();
}

} // namespace tarn::publisher
