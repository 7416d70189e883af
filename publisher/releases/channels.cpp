#include "publisher/releases/channels.h"

#include "base/error.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"
#include "publisher/repository/document_sentences.h"
#include "publisher/repository/option_checks.h"

#include <utility>

namespace tarn::publisher {

namespace {

/** The format that a full package says it is of; no value when the package is missing. Checks no signature. */
std::optional<std::string> FormatOf(const Repository& repository, const std::string& id, int version) {
	try {
		const Json::Value metadata = ReadMetadata(archive::ArchiveFile(repository.PackagePath(id, version)));
		const Json::Value format = metadata.isObject() ? metadata[kFormatKey] : Json::Value();
		return format.isString() ? std::optional(format.asString()) : std::nullopt;
	} catch (const Error&) {
		return std::nullopt;
	}
}

/** The steps of Promote(). */
class Promotion {
public:
	Promotion(const PromoteOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      reader_(options.keys),
	      repository_(options.repository, observer.waiting),
	      source_(Source()),
	      target_(repository_.ReadEntry(options.to, options.id)) {
		result_.data_version = source_.data_version;
		if (target_) {
			result_.before = target_->data_version;
		}
	}

	PromoteResult Run() {
		RefuseOlder();
		if (target_ && target_->data_version == source_.data_version) {
			return result_;
		}
		RequireAWay();
		RequireSameFormat();
		WarnOfNewDocument(repository_, options_.to, options_.id, observer_);
		repository_.RemoveDocumentLeftovers();
		repository_.CopyEntry(options_.from, options_.to, options_.id);
		result_.is_changed = true;
		RemoveOldDiffs(repository_, options_.id, observer_);
		return result_;
	}

private:
	std::string Version() const { return "Version " + std::to_string(source_.data_version) + " of " + options_.id; }

	Entry Source() const {
		std::optional<Entry> entry = repository_.ReadEntry(options_.from, options_.id);
		if (!entry) {
			throw PublishError(
			    WhyNotNamed(repository_, options_.from, options_.id) + ", so there is nothing to promote.");
		}
		return std::move(*entry);
	}

	void RefuseOlder() const {
		if (target_ && target_->data_version > source_.data_version) {
			throw PublishError(Version() + ", which " + options_.from + " names, is older than version " +
			                   std::to_string(target_->data_version) + ", which " + options_.to +
			                   " names; devices would not take it.");
		}
	}

	/** What is missing of the diff packages that lead from the target's version; empty when they are all there. */
	std::string MissingOfChain() const {
		if (!target_) {
			return options_.to + " does not name " + options_.id + " yet";
		}
		for (int version = target_->data_version; version < source_.data_version;) { // The last has no successor.
			++version;
			const auto diff = source_.diff_files.find(version);
			if (diff == source_.diff_files.end()) {
				return "no diff package leads to version " + std::to_string(version);
			}
			if (std::string problem = ProblemOfDiff(version, diff->second); !problem.empty()) {
				return problem;
			}
		}
		return "";
	}

	std::string ProblemOfDiff(int version, const DiffFile& named) const {
		const std::string path = repository_.DiffPath(options_.id, version, named);
		try {
			const archive::ArchiveFile archive = reader_.Open(path, {options_.id, "", version, kDiffKind});
			const bool is_named = archive.Head().FileSize() == static_cast<std::uint64_t>(named.file_size);
			return is_named ? "" : "the document gives another size for the package " + path;
		} catch (const PublishError& error) {
			return error.what();
		}
	}

	std::string MissingOfFullPackage() const {
		const int version = source_.data_version;
		try {
			static_cast<void>(reader_.Open(repository_.PackagePath(options_.id, version), {options_.id, "", version}));
			return "";
		} catch (const PublishError& error) {
			return error.what();
		}
	}

	/** Devices of the target must come to the version by its diff packages, or by its full package. */
	void RequireAWay() {
		const std::string chain = MissingOfChain();
		const std::string full = MissingOfFullPackage();
		result_.has_chain = chain.empty();
		if (!chain.empty() && !full.empty()) {
			throw PublishError(Version() + " is not promoted: devices of " + options_.to +
			                   " would find no chain of diff packages (" + chain + ") and no full package (" + full +
			                   ").");
		}
		if (!full.empty()) {
			observer_.warn("New devices of " + options_.to + " find no full package: " + full + ".");
		} else if (target_ && !chain.empty()) {
			observer_.warn("Devices of " + options_.to + " take the full package: " + chain + ".");
		}
	}

	void RequireSameFormat() const {
		if (!target_) {
			return;
		}
		const auto ours = FormatOf(repository_, options_.id, target_->data_version);
		const auto theirs = FormatOf(repository_, options_.id, source_.data_version);
		if (ours && theirs && *ours != *theirs) {
			throw PublishError(Version() + " is not promoted: it is of format \"" + *theirs + "\", and devices of " +
			                   options_.to + " read format \"" + *ours + "\".");
		}
	}

	const PromoteOptions& options_;
	const PublishObserver& observer_;
	PackageReader reader_;
	Repository repository_;
	Entry source_;
	std::optional<Entry> target_;
	PromoteResult result_;
};

} // namespace

std::optional<Entry> EntryToContinue(const Repository& repository, const PublishOptions& options, int version) {
	std::optional<Entry> own = repository.ReadEntry(options.db_version, options.id);
	if (own && own->data_version == version - 1) {
		return own;
	}
	for (auto& [name, entry] : repository.EntriesOf(options.id)) {
		if (entry.data_version == version - 1 &&
		    FormatOf(repository, options.id, version - 1) == options.format_version) {
			Entry continued = entry;
			if (own) {
				continued.diff_files.insert(own->diff_files.begin(), own->diff_files.end());
			}
			return continued;
		}
	}
	return own;
}

void WarnOfNewDocument(
    const Repository& repository, const std::string& name, const std::string& id, const PublishObserver& observer) {
	if (const std::string warning = NewDocumentWarning(repository, name, id); !warning.empty()) {
		observer.warn(warning);
	}
}

void RemoveOldDiffs(const Repository& repository, const std::string& id, const PublishObserver& observer) {
	try {
		repository.Clean(id);
	} catch (const std::exception& error) {
		observer.warn(std::string("Old diff packages could not be removed: ") + error.what());
	}
}

PromoteResult Promote(const PromoteOptions& options, const PublishObserver& observer) {
	CheckWord("--id", options.id);
	CheckWord("--from", options.from);
	CheckWord("--to", options.to);
	if (options.from == options.to) {
		throw UsageError("--from and --to are both \"" + options.to + "\".");
	}
	RequireRepository(options.repository);
	return Promotion(options, observer).Run();
}

} // namespace tarn::publisher
