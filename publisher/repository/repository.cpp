#include "publisher/repository/repository.h"

#include "base/file_io.h"
#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/repository/withdrawn_packages.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr const char* kUrlName = "/packages/.tarndbudpub.url";

std::optional<PackageFile> Recognise(const fs::path& path, const std::string& id) {
	constexpr std::string_view kSuffix = ".tarn";
	const std::string name = path.filename().string();
	const std::size_t prefix = id.size() + 2; // "_v" or "_d"
	if (name.size() <= prefix + kSuffix.size() || !StartsWith(name, id + "_") || path.extension() != kSuffix) {
		return std::nullopt;
	}
	const char kind = name[id.size() + 1];
	const std::string_view numbers = std::string_view(name).substr(prefix, name.size() - prefix - kSuffix.size());
	const std::size_t mark = kind == 'd' ? numbers.find('w') : std::string_view::npos;
	const std::optional<int> version = ParseVersion(numbers.substr(0, mark));
	const std::optional<int> withdrawal = mark == std::string_view::npos ? 0 : ParseVersion(numbers.substr(mark + 1));
	if (!version || !withdrawal || (kind != 'v' && kind != 'd')) {
		return std::nullopt;
	}
	return PackageFile{path.string(), *version, kind == 'd', *withdrawal};
}

bool Exists(const std::string& path) {
	return fs::exists(fs::symlink_status(path));
}

void WriteReplacing(const std::string& path, const std::string& text) {
	ReplacingFile file(path);
	WriteFully(file.Fd(), text.data(), text.size(), path);
	file.Commit();
}

void RequireReadable(const std::string& path, const std::string& text) {
	if (const std::string problem = SizeProblem(text.size()); !problem.empty()) {
		throw PublishError("The document " + path + " is left as it is: " + problem + ".");
	}
}

void WriteDocument(const std::string& path, const Document& document) {
	const std::string text = document.Text();
	RequireReadable(path, text);
	WriteReplacing(path, text);
}

} // namespace

std::optional<std::string> RememberedUrlOf(const std::string& directory) {
	std::ifstream file(directory + kUrlName);
	std::string url;
	return std::getline(file, url) ? std::optional(url) : std::nullopt;
}

std::string LinkTo(const std::string& url, const std::string& name) {
	return WithoutEnd(url, "/") + "/" + name;
}

Repository::Repository(std::string directory, const std::function<void()>& waiting) : directory_(std::move(directory)) {
	MakeServedDirectories(directory_);
	lock_ = LockFile(directory_ + "/" + kLockName, waiting);
}

std::vector<std::string> Repository::DocumentNames() const {
	std::vector<std::string> names;
	for (const fs::path& path : PathsIn(directory_ + "/database_info")) {
		if (path.filename().string().front() != '.') {
			names.push_back(path.filename().string());
		}
	}
	return names;
}

std::map<std::string, Entry> Repository::EntriesOf(const std::string& id) const {
	std::map<std::string, Entry> entries;
	for (const std::string& name : DocumentNames()) {
		if (std::optional<Entry> entry = Document(DocumentPath(name)).Find(id)) {
			entries[name] = std::move(*entry);
		}
	}
	return entries;
}

std::optional<int> Repository::LastVersion(const std::string& id) const {
	std::optional<int> last;
	for (const auto& [name, entry] : EntriesOf(id)) {
		last = std::max(last.value_or(-1), entry.data_version);
	}
	return last;
}

std::optional<Entry> Repository::ReadEntry(const std::string& db_version, const std::string& id) const {
	const std::string path = DocumentPath(db_version);
	return Exists(path) ? Document(path).Find(id) : std::nullopt;
}

bool Repository::IsDamaged(const std::string& db_version) const {
	const std::string path = DocumentPath(db_version);
	try {
		if (Exists(path)) {
			const Document readable(path);
		}
		return false;
	} catch (const DamagedDocument&) {
		return true;
	}
}

std::string Repository::DiffName(const std::string& id, int version, const DiffFile& named) {
	const std::string name = named.download_link.substr(named.download_link.rfind('/') + 1);
	const std::optional<PackageFile> file = Recognise(name, id);
	return file && file->is_diff && file->data_version == version ? NameOf(id, *file) : DiffName(id, version);
}

std::string Repository::NameOf(const std::string& id, const PackageFile& file) {
	return "packages/" + id + "/" + id + (file.is_diff ? "_d" : "_v") + std::to_string(file.data_version) +
	       (file.withdrawal > 0 ? "w" + std::to_string(file.withdrawal) : "") + ".tarn";
}

std::string Repository::DiffPath(const std::string& id, int version, const DiffFile& named) const {
	return directory_ + "/" + DiffName(id, version, named);
}

std::string Repository::KeptPackagePath(const std::string& id, int version) const {
	const std::string path = PackagePath(id, version);
	const std::string withdrawn = WithdrawnPath(path);
	return !Exists(path) && Exists(withdrawn) ? withdrawn : path;
}

std::vector<PackageFile> PackagesIn(const std::string& directory, const std::string& id) {
	std::vector<PackageFile> files;
	for (const fs::path& path : PathsIn(directory)) {
		if (std::optional<PackageFile> file = Recognise(path, id)) {
			files.push_back(std::move(*file));
		}
	}
	std::sort(files.begin(), files.end(), [](const PackageFile& left, const PackageFile& right) {
		return std::tie(left.data_version, left.is_diff, left.path) <
		       std::tie(right.data_version, right.is_diff, right.path);
	});
	return files;
}

std::vector<std::string> Repository::PackagedIds() const {
	std::vector<std::string> ids;
	for (const fs::path& path : PathsIn(directory_ + "/packages")) {
		if (fs::is_directory(path) && path.filename().string().front() != '.') {
			ids.push_back(path.filename().string());
		}
	}
	return ids;
}

void Repository::RemoveUnnamedDiffs(const std::string& id, const std::optional<int>& spared) const {
	std::set<std::string> kept;
	for (const auto& [name, entry] : EntriesOf(id)) {
		for (const auto& [version, file] : entry.diff_files) {
			kept.insert(DiffPath(id, version, file));
		}
	}
	for (const PackageFile& file : Packages(id)) {
		if (file.is_diff && kept.count(file.path) == 0 && file.data_version != spared) {
			fs::remove(file.path);
		}
	}
}

void Repository::RetireWithdrawn(const std::string& id) const {
	std::set<std::string> offered;
	std::optional<int> newest;
	for (const auto& [name, entry] : EntriesOf(id)) {
		offered.insert(fs::path(PackageName(id, entry.data_version)).filename().string());
		newest = std::max(newest.value_or(-1), entry.data_version);
	}
	if (newest) { // Else the documents are lost, and which withdrawals were published is unknown.
		MoveWithdrawn(PackageDirectory(id), offered, *newest);
	}
}

void Repository::Clean(const std::string& id, const std::optional<int>& spared) const {
	RemoveLeftovers(directory_);
	RemoveUnnamedDiffs(id, spared);
	RetireWithdrawn(id);
	RemoveLeftovers(PackageDirectory(id));
	RemoveLeftovers(directory_ + "/packages");
	RemoveDocumentLeftovers();
}

void Repository::RemoveDocumentLeftovers() const {
	RemoveLeftovers(directory_ + "/database_info");
}

void Repository::WriteEntries(
    const std::string& db_version, const std::map<std::string, Entry>& entries, bool replaces_damaged) const {
	const std::string path = DocumentPath(db_version);
	Document document;
	if (replaces_damaged && IsDamaged(db_version)) {
		WriteReplacing(directory_ + "/database_info/.damaged-" + db_version, Document::ReadText(path));
	} else if (Exists(path)) {
		document = Document(path);
	}
	for (const auto& [id, entry] : entries) {
		document.Put(id, entry);
	}
	WriteDocument(path, document);
}

void Repository::RequireRoom(const std::string& db_version, const std::string& id, const Entry& entry) const {
	const std::string path = DocumentPath(db_version);
	Document document = Exists(path) ? Document(path) : Document();
	document.Put(id, entry);
	RequireReadable(path, document.Text());
}

void Repository::CopyEntry(const std::string& from, const std::string& to, const std::string& id) const {
	const std::string path = DocumentPath(to);
	Document document = Exists(path) ? Document(path) : Document();
	document.CopyEntry(Document(DocumentPath(from)), id);
	WriteDocument(path, document);
}

void Repository::RememberUrl(const std::string& url) const {
	if (RememberedUrlOf(directory_) != url) {
		WriteReplacing(directory_ + kUrlName, url + "\n");
	}
}

} // namespace tarn::publisher
