#include "publisher/kits/export.h"

#include "base/error.h"
#include "base/file_io.h"
#include "kit/reader.h"
#include "kit/writer.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/kits/kit_draft.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/repository/document.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/repository.h"

#include <fcntl.h>

#include <algorithm>
#include <utility>

namespace tarn::publisher {

namespace {

constexpr std::uint64_t kStepSize = std::uint64_t{16} << 20U;

/** What goes into a kit, with all files open, so that a publisher may remove them. */
struct Content {
	Json::Value document;
	std::vector<kit::Package> packages;
	std::uint64_t size = 0; // of the packages
	std::vector<ExportedDatabase> databases;
};

/** Shows how much of the packages is done, once in a while. */
class Steps {
public:
	Steps(const PublishObserver& observer, const char* what, std::uint64_t all)
	    : observer_(observer), what_(what), all_(all) {}

	void Add(std::uint64_t bytes) {
		const std::uint64_t before = done_ / kStepSize;
		done_ += bytes;
		if (observer_.step && done_ / kStepSize != before) {
			observer_.step(what_, done_ >> kMebibyteBits, std::max<std::uint64_t>(all_ >> kMebibyteBits, 2));
		}
	}

private:
	static constexpr unsigned kMebibyteBits = 20;

	const PublishObserver& observer_;
	const char* what_;
	std::uint64_t all_;
	std::uint64_t done_ = 0;
};

/** Chooses and opens what one kit holds. */
class Collector {
public:
	Collector(const ExportOptions& options, const PublishObserver& observer)
	    : options_(options), observer_(observer), reader_(options.keys) {}

	/** Starts again when a publisher changes the document meanwhile, because packages may then be gone. */
	Content Collect() {
		const std::string path = options_.repository + "/database_info/" + options_.db_version;
		std::string text = Document::ReadText(path);
		for (int tries = 1;; ++tries) {
			try {
				return CollectAll(path, text);
			} catch (const PublishError&) {
				const std::string now = Document::ReadText(path);
				if (now == text || tries == kMostTries) {
					throw;
				}
				text = now;
			}
		}
	}

private:
	static constexpr int kMostTries = 5;

	[[noreturn]] static void FailToFind(const std::string& id, const std::string& path) {
		throw PublishError("The document " + path + " names no version of " + id + ".");
	}

	Content CollectAll(const std::string& path, const std::string& text) {
		const Document document = Document::FromText(path, text);
		content_ = {};
		content_.document = ParseJson(text).value_or(Json::Value());
		Json::Value list(Json::objectValue);
		for (const std::string& id : Ids()) {
			const std::optional<Entry> entry = document.Find(id);
			if (!entry) {
				FailToFind(id, path);
			}
			Json::Value value = content_.document["db_list"][id];
			value["diff_files"] = Add(id, *entry, value["diff_files"]);
			list[id] = std::move(value);
		}
		content_.document["db_list"] = std::move(list);
		return std::move(content_);
	}

	std::vector<std::string> Ids() const {
		std::vector<std::string> ids = {options_.id};
		ids.insert(ids.end(), options_.also.begin(), options_.also.end());
		return ids;
	}

	/** Returns the part of the document's list of diff packages that goes along. */
	Json::Value Add(const std::string& id, const Entry& entry, const Json::Value& listed) {
		Json::Value kept(Json::objectValue);
		const std::optional<int> from = id == options_.id ? options_.from : std::nullopt;
		const bool has_chain = from && HasChain(id, *from, entry);
		for (int version = has_chain ? *from : entry.data_version; version < entry.data_version;) {
			++version;
			AddPackage({kit::Kind::kDiff, id, version, 0, {}}, entry.diff_files.at(version));
			const std::string key = std::to_string(version);
			kept[key] = listed[key];
		}
		const bool has_full = !has_chain || options_.with_full;
		if (has_full) {
			AddPackage({kit::Kind::kFull, id, entry.data_version, 0, {}}, std::nullopt);
		}
		content_.databases.push_back({id, entry.data_version, has_full, kept.size()});
		return kept;
	}

	bool HasChain(const std::string& id, int from, const Entry& entry) const {
		if (from >= entry.data_version) {
			throw PublishError("There is no version of " + id + " above " + std::to_string(from) + ": the newest is " +
			                   std::to_string(entry.data_version) + ".");
		}
		for (int version = from; version < entry.data_version;) {
			if (entry.diff_files.count(++version) == 0) {
				observer_.warn("There is no diff package from version " + std::to_string(version - 1) + " to " +
				               std::to_string(version) + " of " + id + ", so the kit holds the full package.");
				return false;
			}
		}
		return true;
	}

	void AddPackage(kit::Part part, const std::optional<DiffFile>& promised) {
		const bool is_diff = promised.has_value();
		const std::string name = is_diff ? Repository::DiffName(part.id, part.data_version, *promised)
		                                 : Repository::PackageName(part.id, part.data_version);
		const std::string path = options_.repository + "/" + name;
		UniqueFd file = Open(path);
		const archive::ArchiveFile archive =
		    reader_.Open(path, {part.id, "", part.data_version, is_diff ? kDiffKind : "full"});
		part.size = archive.Head().FileSize();
		if (promised && part.size != static_cast<std::uint64_t>(promised->file_size)) {
			throw PublishError("The package " + path + " has " + std::to_string(part.size) + " bytes, and not the " +
			                   std::to_string(promised->file_size) + " that the document names.");
		}
		content_.size += part.size;
		content_.packages.push_back({std::move(part), std::move(file)});
	}

	static UniqueFd Open(const std::string& path) {
		try {
			return OpenRegularFile(AT_FDCWD, path);
		} catch (const Error& error) {
			throw PublishError("The package " + path + " cannot be put into the kit: it " + error.what() + ".");
		}
	}

	const ExportOptions& options_;
	const PublishObserver& observer_;
	PackageReader reader_;
	Content content_;
};

void CheckOptions(const ExportOptions& options) {
	CheckWord("ID", options.id);
	CheckWord("--db-version", options.db_version);
	std::vector<std::string> seen = {options.id};
	for (const std::string& id : options.also) {
		CheckWord("--also", id);
		if (std::find(seen.begin(), seen.end(), id) != seen.end()) {
			throw UsageError("--also \"" + id + "\" is in the kit already.");
		}
		seen.push_back(id);
	}
	if (options.from && *options.from < 0) {
		throw UsageError("--from " + std::to_string(*options.from) + " must be 0 or more.");
	}
	if (options.with_full && !options.from) {
		throw UsageError("--with-full goes with --from; without, a kit holds the full package anyway.");
	}
	RequireRepository(options.repository);
}

/** Reads everything again, as a device will. */
void Verify(const std::string& name, std::uint64_t size, const PublishObserver& observer) {
	const kit::Reader reader(name);
	Steps steps(observer, "checking MiB", size);
	for (const kit::Part& part : reader.Parts()) {
		reader.Read(part, [&](std::string_view bytes) { steps.Add(bytes.size()); });
	}
}

} // namespace

ExportResult Export(const ExportOptions& options, const PublishObserver& observer) {
	CheckOptions(options);
	Content content = Collector(options, observer).Collect();
	KitDraft draft(options.file);
	try {
		Steps steps(observer, "copying MiB", content.size);
		kit::Write(draft.Fd(), JsonText(content.document, "\t") + "\n", std::move(content.packages),
		    [&](std::uint64_t bytes) { steps.Add(bytes); });
		draft.Sync();
		Verify(draft.Name(), content.size, observer);
	} catch (const Error& error) {
		throw PublishError("The kit " + options.file + " " + error.what() + ".");
	}
	draft.Commit();
	return {content.size, std::move(content.databases)};
}

} // namespace tarn::publisher
