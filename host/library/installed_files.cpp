#include "host/library/installed_files.h"

#include "base/file_io.h"
#include "base/text.h"
#include "dataupdate/installation.h"
#include "dataupdate/paths.h"
#include "dataupdate/utils.h"

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <tuple>

namespace tarn::ctl {

using dataupdate::DatabaseStatus;

namespace {

Json::Value ToJson(const InstalledFile& file) {
	Json::Value object(Json::objectValue);
	if (!file.link_target.empty()) {
		object["link_target"] = file.link_target;
		return object;
	}
	object["sha384_digest"] = file.sha384_digest;
	if (file.size) {
		object["size"] = Json::UInt64{*file.size};
	}
	return object;
}

InstalledFile FromJson(const Json::Value& object) {
	InstalledFile file;
	if (object.isMember("link_target")) {
		file.link_target = object["link_target"].asString();
		return file;
	}
	file.sha384_digest = object["sha384_digest"].asString();
	if (object.isMember("size")) {
		file.size = object["size"].asUInt64();
	}
	return file;
}

InstalledFiles Decode(const Json::Value& object) {
	InstalledFiles record;
	record.data_version = std::stoi(object["data_version"].asString());
	record.is_from_disk = object["rebuilt_from_disk"].asBool();
	const Json::Value& files = object["files"];
	if (!files.isObject()) {
		throw std::invalid_argument("files");
	}
	for (auto entry = files.begin(); entry != files.end(); ++entry) {
		record.files.emplace_hint(record.files.end(), entry.name(), FromJson(*entry));
	}
	return record;
}

constexpr char kEnd[] = "\n}}\n";

/** What the record of a version begins with. */
std::string Head(int version) {
	return R"({"data_version":")" + std::to_string(version) + R"(",)";
}

bool NextIs(std::istream& file, const std::string& expected) {
	std::string text(expected.size(), '\0');
	return file.read(text.data(), static_cast<std::streamsize>(text.size())) && text == expected;
}

bool IsBefore(const timespec& left, const timespec& right) {
	return std::tie(left.tv_sec, left.tv_nsec) < std::tie(right.tv_sec, right.tv_nsec);
}

/** One line for each file; names that are no UTF-8 stay as they are. */
std::string Encode(const InstalledFiles& record) {
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "";
	builder["emitUTF8"] = true;
	std::string text = Head(record.data_version) + R"("rebuilt_from_disk":)" +
	                   (record.is_from_disk ? "true" : "false") + R"(,"files":{)";
	const char* separator = "\n";
	for (const auto& [name, file] : record.files) {
		text += separator + Json::writeString(builder, name) + ":" + Json::writeString(builder, ToJson(file));
		separator = ",\n";
	}
	return text + kEnd;
}

} // namespace

bool InstalledFile::operator==(const InstalledFile& other) const {
	return sha384_digest == other.sha384_digest && size == other.size && link_target == other.link_target;
}

Json::Value ReadJsonRecord(const std::string& path) {
	std::ifstream file(path);
	Json::Value record;
	try {
		if (file && Json::parseFromStream(Json::CharReaderBuilder(), file, &record, nullptr)) {
			return record;
		}
	} catch (const Json::Exception&) {
		return {}; // Nested too deeply.
	}
	return {};
}

std::string InstalledFilesPath(const std::string& id) {
	return dataupdate::StatePath(id, "installed_files.json");
}

std::optional<InstalledFiles> ReadInstalledFiles(const std::string& id) {
	try {
		return Decode(ReadJsonRecord(InstalledFilesPath(id)));
	} catch (const Json::Exception&) {
		return std::nullopt; // Something else stands where a member should be.
	} catch (const std::logic_error&) {
		return std::nullopt; // The version is no number, or there are no files.
	}
}

bool SeemsCurrent(const std::string& id, int version) {
	const std::string path = InstalledFilesPath(id);
	std::ifstream file(path, std::ios::binary);
	struct stat own {};
	struct stat librarys {};
	return NextIs(file, Head(version)) &&
	       NextIs(file.seekg(1 - static_cast<std::streamoff>(sizeof kEnd), std::ios::end), kEnd) &&
	       stat(path.c_str(), &own) == 0 && stat(dataupdate::StatusPath(id).c_str(), &librarys) == 0 &&
	       !IsBefore(own.st_mtim, librarys.st_mtim);
}

void ConfirmInstalledFiles(const std::string& id) {
	// Without success the record is only read once more.
	[[maybe_unused]] const int ignored = utimensat(AT_FDCWD, InstalledFilesPath(id).c_str(), nullptr, 0);
}

void WriteInstalledFiles(const std::string& id, const InstalledFiles& record) {
	WriteWholeFile(InstalledFilesPath(id), Encode(record));
}

void DropInstalledFiles(const std::string& id) {
	const std::filesystem::path path = InstalledFilesPath(id);
	if (unlink(path.c_str()) != 0) {
		if (errno != ENOENT) {
			syslog(LOG_WARNING, "%s cannot be removed (%s)", path.c_str(), std::strerror(errno));
		}
		return;
	}
	if (!SyncDirectory(path.parent_path())) {
		syslog(LOG_WARNING, "%s cannot be removed (%s)", path.c_str(), std::strerror(errno));
	}
}

std::optional<std::string> RelativeName(const std::string& name, const std::string& install_prefix) {
	const std::filesystem::path path = std::filesystem::path(name).lexically_normal();
	const std::filesystem::path relative = path.is_absolute() ? path.lexically_relative(install_prefix) : path;
	if (relative.empty() || *relative.begin() == ".." || relative == ".") {
		return std::nullopt;
	}
	return relative.string();
}

bool ListsAllFiles(const DatabaseStatus& status) {
	return !status.file_statuses.empty() && std::all_of(status.file_statuses.begin(), status.file_statuses.end(),
	                                            [](const auto& entry) { return StartsWith(entry.first, "/"); });
}

const std::string& DigestOfNothing() {
	static const std::string kDigest = [] {
		std::istringstream nothing;
		return dataupdate::GetSha384(nothing);
	}();
	return kDigest;
}

bool IsListedDirectory(const dataupdate::FileStatus& status, const std::string& path) {
	std::error_code ignored;
	return status.sha384_digest == DigestOfNothing() &&
	       std::filesystem::is_directory(std::filesystem::symlink_status(path, ignored));
}

bool Agree(const InstalledFiles& record, const DatabaseStatus& status, const std::string& install_prefix) {
	if (record.data_version != status.data_version ||
	    (ListsAllFiles(status) && record.files.size() != status.file_statuses.size())) {
		return false;
	}
	return std::all_of(status.file_statuses.begin(), status.file_statuses.end(), [&](const auto& entry) {
		const auto name = RelativeName(entry.first, install_prefix);
		const auto file = name ? record.files.find(*name) : record.files.end();
		return file != record.files.end() ? file->second.sha384_digest == entry.second.sha384_digest
		                                  : name && IsListedDirectory(entry.second, install_prefix + "/" + *name);
	});
}

std::optional<InstalledFiles> ReadCredibleFiles(
    const std::string& id, const DatabaseStatus& status, const std::string& install_prefix) {
	if (dataupdate::IsReplacementMarked(id)) {
		return std::nullopt;
	}
	std::optional<InstalledFiles> record = ReadInstalledFiles(id);
	return record && Agree(*record, status, install_prefix) ? std::move(record) : std::nullopt;
}

} // namespace tarn::ctl
