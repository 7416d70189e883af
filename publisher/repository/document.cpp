#include "publisher/repository/document.h"

#include "base/document_limit.h"
#include "base/error.h"
#include "base/file_io.h"
#include "publisher/common/json_text.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <iterator>
#include <utility>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

/** What rebuilds a document of a repository, but for the name of the key. */
std::string RestoreCommand(const std::string& path) {
	const fs::path document(path);
	return "\"tarndbudpub restore --repo " + document.parent_path().parent_path().string() + " --db-version " +
	       document.filename().string() + " --key FILE\"";
}

int VersionOf(const Json::Value& entry, const std::string& id, const std::string& path) {
	std::optional<int> version;
	if (entry.isObject() && entry["data_version"].isString()) {
		version = ParseVersion(entry["data_version"].asString());
	}
	if (!version) {
		throw DamagedDocument("The document " + path + " holds no readable version of " + id +
		                      "; repair it, or rebuild it by " + RestoreCommand(path) + ".");
	}
	return *version;
}

/** The diff packages of an entry. Leaves out what cannot be read, since it leads no device anywhere. */
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

Json::Value ToJson(const std::map<int, DiffFile>& files) {
	Json::Value list(Json::objectValue);
	for (const auto& [version, file] : files) {
		Json::Value& value = list[std::to_string(version)];
		value["download_link"] = file.download_link;
		value["file_size"] = file.file_size;
	}
	return list;
}

/** The writer replaces bytes that are no UTF-8, and halves of a pair: a database could lose its name. */
bool CanBeWritten(const Json::Value& value) {
	return ParseJson(JsonText(value)) == value;
}

void EnsureDeprecatedFlag(Json::Value& place) {
	if (!place["deprecated"].isBool()) {
		place["deprecated"] = false;
	}
}

} // namespace

std::optional<int> ParseVersion(std::string_view digits) {
	int version = -1;
	const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), version);
	const bool whole = result.ec == std::errc() && result.ptr == digits.data() + digits.size();
	return whole && version >= 0 ? std::optional(version) : std::nullopt;
}

std::string SizeProblem(std::uint64_t bytes) {
	return bytes <= kLargestDocument
	           ? ""
	           : "its " + std::to_string(bytes) + " bytes are more than the " + std::to_string(kLargestDocument) +
	                 " that devices read; let its databases keep fewer diff packages "
	                 "(--keep-diffs), or publish some of them into another document (--db-version)";
}

std::string Document::ReadText(const std::string& path) {
	constexpr std::size_t kMaxSize = 64U << 20U;
	try {
		const UniqueFd fd = OpenRegularFile(AT_FDCWD, path);
		return ReadSmallFile(fd.Get(), kMaxSize, "it");
	} catch (const Error& error) {
		throw PublishError("The document " + path + " cannot be read: it " + error.what() + ".");
	}
}

void KeepNewest(std::map<int, DiffFile>& files, const KeptDiffs& kept, std::uint64_t full_package_size) {
	std::uint64_t size = 0;
	int number = 0;
	auto oldest = files.end();
	while (oldest != files.begin() && number < kept.value_or(kMostKeptDiffs)) {
		size += static_cast<std::uint64_t>(std::prev(oldest)->second.file_size);
		if (!kept && size > full_package_size) {
			break;
		}
		--oldest;
		++number;
	}
	files.erase(files.begin(), oldest);
}

Document::Document(const std::string& path) : Document(FromText(path, ReadText(path))) {}

Document Document::FromText(const std::string& path, const std::string& text) {
	Document document;
	document.path_ = path;
	document.Parse(text);
	return document;
}

void Document::Parse(const std::string& text) {
	std::string errors;
	value_ = ParseJson(text, &errors).value_or(Json::Value());
	if (!value_.isObject()) {
		std::replace(errors.begin(), errors.end(), '\n', ' ');
		throw DamagedDocument("The document " + path_ +
		                      " is no JSON object and is left as it is; repair it, or rebuild it by " +
		                      RestoreCommand(path_) + ". " + errors);
	}
	if (!std::as_const(value_)["db_list"].isObject()) {
		throw DamagedDocument("The document " + path_ +
		                      " has no \"db_list\" object and is left as it is; repair it, or rebuild it by " +
		                      RestoreCommand(path_) + ".");
	}
	if (!CanBeWritten(value_)) {
		throw DamagedDocument("The document " + path_ +
		                      " holds text that is no UTF-8 and is left as it is; repair it, or rebuild it by " +
		                      RestoreCommand(path_) + ".");
	}
}

std::optional<Entry> Document::Find(const std::string& id) const {
	const Json::Value& list = value_["db_list"];
	if (!list.isMember(id)) {
		return std::nullopt;
	}
	const int version = VersionOf(list[id], id, path_);
	const Json::Value& link = list[id]["download_link"];
	return Entry{version, 0, link.isString() ? link.asString() : "", DiffFilesOf(list[id])};
}

void Document::Put(const std::string& id, const Entry& entry) {
	EnsureDeprecatedFlag(value_);
	Json::Value& place = value_["db_list"][id];
	if (!place.isObject()) {
		place = Json::Value(Json::objectValue);
	}
	EnsureDeprecatedFlag(place);
	place["data_version"] = std::to_string(entry.data_version);
	place["last_fetch_time"] = entry.last_fetch_time;
	place["download_link"] = entry.download_link;
	place["diff_files"] = ToJson(entry.diff_files);
}

void Document::CopyEntry(const Document& other, const std::string& id) {
	EnsureDeprecatedFlag(value_);
	Json::Value& place = value_["db_list"][id];
	const Json::Value flag = place.isObject() ? place["deprecated"] : Json::Value();
	place = other.EntryJson(id);
	if (flag.isBool()) {
		place["deprecated"] = flag;
	}
	EnsureDeprecatedFlag(place);
}

std::string Document::Text() const {
	return JsonText(value_, "\t") + "\n";
}

} // namespace tarn::publisher
