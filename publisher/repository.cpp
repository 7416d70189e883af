#include "publisher/repository.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"
#include "publisher/publish_error.h"
#include "publisher/replacing_file.h"
#include "publisher/work_directory.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxDocumentSize = 64U << 20U;
constexpr const char* kLockName = ".tarndbudpub.lock";
constexpr const char* kUrlName = "/packages/.tarndbudpub.url";
constexpr mode_t kLockMode = 0644;

UniqueFd Lock(const std::string& path, const std::function<void()>& waiting) {
	UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockMode));
	if (!fd) {
		throw PublishError(ErrnoText("The lock " + path + " cannot be opened", errno) + ".");
	}
	if (flock(fd.Get(), LOCK_EX | LOCK_NB) == 0) {
		return fd;
	}
	waiting();
	while (flock(fd.Get(), LOCK_EX) != 0) {
		if (errno != EINTR) {
			throw PublishError(ErrnoText("The lock " + path + " cannot be taken", errno) + ".");
		}
	}
	return fd;
}

Json::Value ParseObject(const std::string& text, const std::string& path) {
	Json::CharReaderBuilder builder;
	const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
	Json::Value value;
	std::string errors;
	try {
		if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
			value = Json::Value();
		}
	} catch (const Json::Exception& error) {
		errors = error.what();
		value = Json::Value();
	}
	std::replace(errors.begin(), errors.end(), '\n', ' ');
	if (!value.isObject()) {
		throw DamagedDocument("The document " + path +
		                      " is no JSON object and is left as it is; repair it, or rebuild "
		                      "it by \"tarndbudpub restore\". " +
		                      errors);
	}
	return value;
}

int VersionOf(const Json::Value& entry, const std::string& id, const std::string& path) {
	std::optional<int> version;
	if (entry.isObject() && entry["data_version"].isString()) {
		version = ParseVersion(entry["data_version"].asString());
	}
	if (!version) {
		throw DamagedDocument("The document " + path + " holds no readable version of " + id +
		                      "; repair it, or rebuild it by \"tarndbudpub restore\".");
	}
	return *version;
}

/** The diff packages of an entry; what is no such thing is passed over, as it leads no device anywhere. */
std::map<int, DiffFile> DiffFilesOf(const Json::Value& entry) {
	std::map<int, DiffFile> files;
	const Json::Value& list = entry["diff_files"];
	for (const std::string& key : list.isObject() ? list.getMemberNames() : Json::Value::Members()) {
		const std::optional<int> version = ParseVersion(key);
		const Json::Value& file = list[key];
		if (version && file.isObject() && file["download_link"].isString() && file["file_size"].isInt()) {
			files[*version] = {file["download_link"].asString(), file["file_size"].asInt()};
		}
	}
	return files;
}

void WriteReplacing(const std::string& path, const std::string& text) {
	ReplacingFile file(path);
	WriteFully(file.Fd(), text.data(), text.size(), path);
	file.Commit();
}

Json::Value ToJson(const std::map<int, DiffFile>& files) {
	Json::Value list(Json::objectValue);
	for (const auto& [version, file] : files) {
		Json::Value& value = list[std::to_string(version)];
		value["download_link"] = file.download_link;
		value["file_size"] = file.file_size;
	}
	return list;
}

/** Writes an entry into its place in a document. */
void Record(Json::Value& place, const Entry& entry) {
	if (!place.isObject()) {
		place = Json::Value(Json::objectValue);
	}
	if (!place["deprecated"].isBool()) {
		place["deprecated"] = false;
	}
	place["data_version"] = std::to_string(entry.data_version);
	place["last_fetch_time"] = entry.last_fetch_time;
	place["download_link"] = entry.download_link;
	place["diff_files"] = ToJson(entry.diff_files);
}

} // namespace

Repository::Repository(std::string directory, const std::function<void()>& waiting) : directory_(std::move(directory)) {
	MakeServedDirectories(directory_);
	lock_ = Lock(directory_ + "/" + kLockName, waiting);
}

std::string Repository::PackageName(const std::string& id, int data_version) {
	return "packages/" + id + "/" + id + "_v" + std::to_string(data_version) + ".tarn";
}

std::string Repository::PackagePath(const std::string& id, int data_version) const {
	return directory_ + "/" + PackageName(id, data_version);
}

std::string Repository::DiffName(const std::string& id, int data_version) {
	return "packages/" + id + "/" + id + "_d" + std::to_string(data_version) + ".tarn";
}

std::string Repository::DiffPath(const std::string& id, int data_version) const {
	return directory_ + "/" + DiffName(id, data_version);
}

std::string Repository::DocumentPath(const std::string& db_version) const {
	return directory_ + "/database_info/" + db_version;
}

Json::Value Repository::ReadDocument(const std::string& path) const {
	std::string text;
	try {
		const UniqueFd fd = OpenRegularFile(AT_FDCWD, path);
		text = ReadSmallFile(fd.Get(), kMaxDocumentSize, "it");
	} catch (const Error& error) {
		throw PublishError("The document " + path + " cannot be read: it " + error.what() + ".");
	}
	Json::Value document = ParseObject(text, path);
	if (!std::as_const(document)["db_list"].isObject()) {
		throw DamagedDocument("The document " + path +
		                      " has no \"db_list\" object and is left as it is; repair it, or "
		                      "rebuild it by \"tarndbudpub restore\".");
	}
	return document;
}

void Repository::ForEachEntry(
    const std::string& id, const std::function<void(const std::string&, const Json::Value&)>& callback) const {
	std::error_code error;
	for (const fs::directory_entry& file : fs::directory_iterator(directory_ + "/database_info", error)) {
		if (file.path().filename().string().front() == '.') {
			continue;
		}
		const Json::Value list = ReadDocument(file.path().string())["db_list"];
		if (list.isMember(id)) {
			callback(file.path().string(), list[id]);
		}
	}
	if (error && error != std::errc::no_such_file_or_directory) {
		throw PublishError("The documents of " + directory_ + " cannot be read: " + error.message() + ".");
	}
}

std::optional<int> Repository::LastVersion(const std::string& id) const {
	std::optional<int> last;
	ForEachEntry(id, [&](const std::string& path, const Json::Value& entry) {
		last = std::max(last.value_or(-1), VersionOf(entry, id, path));
	});
	return last;
}

std::optional<Entry> Repository::ReadEntry(const std::string& db_version, const std::string& id) const {
	const std::string path = DocumentPath(db_version);
	if (!fs::exists(fs::symlink_status(path))) {
		return std::nullopt;
	}
	const Json::Value list = ReadDocument(path)["db_list"];
	if (!list.isMember(id)) {
		return std::nullopt;
	}
	return Entry{VersionOf(list[id], id, path), 0, "", DiffFilesOf(list[id])};
}

bool Repository::IsDamaged(const std::string& db_version) const {
	const std::string path = DocumentPath(db_version);
	try {
		if (fs::exists(fs::symlink_status(path))) {
			ReadDocument(path);
		}
		return false;
	} catch (const DamagedDocument&) {
		return true;
	}
}

std::vector<PackageFile> Repository::Packages(const std::string& id) const {
	return ListPackageFiles(PackageDirectory(id), id);
}

std::vector<std::string> Repository::PackagedIds() const {
	return ListPackagedIds(directory_ + "/packages");
}

void Repository::RemoveUnnamedDiffs(const std::string& id, const std::optional<int>& spared) const {
	std::set<std::string> named;
	ForEachEntry(id, [&](const std::string& /*path*/, const Json::Value& entry) {
		for (const auto& [version, file] : DiffFilesOf(entry)) {
			named.insert(DiffPath(id, version));
		}
	});
	for (const PackageFile& file : Packages(id)) {
		if (file.is_diff && named.count(file.path) == 0 && file.data_version != spared) {
			fs::remove(file.path);
		}
	}
}

void Repository::Clean(const std::string& id, const std::optional<int>& spared) const {
	WorkDirectory::RemoveLeftovers(directory_);
	RemoveUnnamedDiffs(id, spared);
	RemoveLeftovers(PackageDirectory(id));
	RemoveLeftovers(directory_ + "/packages");
	RemoveDocumentLeftovers();
}

void Repository::RemoveDocumentLeftovers() const {
	RemoveLeftovers(directory_ + "/database_info");
}

void Repository::WriteEntry(const std::string& db_version, const std::string& id, const Entry& entry) const {
	WriteEntries(db_version, {{id, entry}}, false);
}

void Repository::WriteEntries(
    const std::string& db_version, const std::map<std::string, Entry>& entries, bool replaces_damaged) const {
	const std::string path = DocumentPath(db_version);
	Json::Value document(Json::objectValue);
	if (replaces_damaged && IsDamaged(db_version)) {
		KeepDamaged(db_version);
	} else if (fs::exists(fs::symlink_status(path))) {
		document = ReadDocument(path);
	}
	if (!document["deprecated"].isBool()) {
		document["deprecated"] = false;
	}
	for (const auto& [id, entry] : entries) {
		Record(document["db_list"][id], entry);
	}
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "\t";
	WriteReplacing(path, Json::writeString(builder, document) + "\n");
}

void Repository::KeepDamaged(const std::string& db_version) const {
	const UniqueFd fd = OpenRegularFile(AT_FDCWD, DocumentPath(db_version));
	const std::string text = ReadSmallFile(fd.Get(), kMaxDocumentSize, "it");
	WriteReplacing(directory_ + "/database_info/.damaged-" + db_version, text);
}

void Repository::RememberUrl(const std::string& url) const {
	if (RememberedUrl() != url) {
		WriteReplacing(directory_ + kUrlName, url + "\n");
	}
}

std::optional<std::string> Repository::RememberedUrl() const {
	std::ifstream file(directory_ + kUrlName);
	std::string url;
	return std::getline(file, url) ? std::optional(url) : std::nullopt;
}

} // namespace tarn::publisher
