#include "host/library/installed_files.h"

#include "base/file_io.h"
#include "base/record_entries.h"
#include "dataupdate/installation.h"
#include "dataupdate/paths.h"

#include <boost/algorithm/hex.hpp>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>
#include <utility>

namespace tarn::ctl {

namespace {

using nlohmann::json;

constexpr std::size_t kDigestDigits = 96;
constexpr std::size_t kSizeDigits = 16;
constexpr char kLinkMark = '>';
constexpr char kOddMark = '?';

std::string SizeDigits(std::uint64_t size) {
	std::string digits(kSizeDigits, '0');
	for (auto digit = digits.rbegin(); size > 0; ++digit, size >>= 4U) {
		*digit = "0123456789abcdef"[size & 0xfU];
	}
	return digits;
}

/** What a table keeps of a file: of nearly every file digits alone, which a list keeps as bytes. */
std::string Pack(const InstalledFile& file) {
	if (!file.link_target.empty()) {
		return kLinkMark + file.link_target;
	}
	const std::string size = file.size ? SizeDigits(*file.size) : "";
	// A digest of another length is none of ours, and only has to come back.
	return file.sha384_digest.size() == kDigestDigits
	           ? file.sha384_digest + size
	           : kOddMark + (file.size ? size : "-") + kOddMark + file.sha384_digest;
}

std::optional<std::uint64_t> ParseSize(const std::string& digits) {
	constexpr int kBase = 16;
	return digits.size() == kSizeDigits ? std::optional(std::stoull(digits, nullptr, kBase)) : std::nullopt;
}

InstalledFile Unpack(const std::string& text) {
	InstalledFile file;
	if (text.front() == kLinkMark) {
		file.link_target = text.substr(1);
	} else if (text.front() == kOddMark) {
		const std::size_t end = text.find(kOddMark, 1);
		file.size = ParseSize(text.substr(1, end - 1));
		file.sha384_digest = text.substr(end + 1);
	} else {
		file.sha384_digest = text.substr(0, kDigestDigits);
		file.size = ParseSize(text.substr(kDigestDigits));
	}
	return file;
}

/**
 * A text as it is recorded. What is no UTF-8 is none in JSON either: it is recorded by its digits, behind a zero, which
 * no name has.
 */
std::string Quoted(const std::string& text) {
	try {
		return json(text).dump();
	} catch (const json::type_error&) {
		return R"("\u0000)" + boost::algorithm::hex_lower(text) + '"';
	}
}

std::string TextOf(const std::string& recorded) {
	const bool is_digits = !recorded.empty() && recorded.front() == '\0';
	std::string text = is_digits ? boost::algorithm::unhex(recorded.substr(1)) : recorded;
	ExpectInRecord(text.find('\0') == std::string::npos);
	return text;
}

InstalledFile FileOf(const json& members) {
	InstalledFile file;
	for (const auto& [name, value] : members.items()) {
		if (name == "link_target") {
			file.link_target = TextOf(value.get_ref<const std::string&>());
		} else if (name == "sha384_digest") {
			file.sha384_digest = TextOf(value.get_ref<const std::string&>());
		} else {
			ExpectInRecord(name == "size" && value.is_number_unsigned());
			file.size = value.get<std::uint64_t>();
		}
	}
	return file;
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

/** One line for each file. */
void Encode(const InstalledFiles& record, const TextSink& sink) {
	sink(Head(record.data_version) + R"("rebuilt_from_disk":)" + (record.is_from_disk ? "true" : "false") +
	     R"(,"files":{)");
	for (std::size_t at = 0; at < record.files.Size(); ++at) {
		const InstalledFile file = record.files.At(at);
		sink((at == 0 ? "\n" : ",\n") + Quoted(std::string(record.files.Name(at))) + ":");
		if (!file.link_target.empty()) {
			sink(R"({"link_target":)" + Quoted(file.link_target) + "}");
		} else {
			const std::string size = file.size ? R"(,"size":)" + std::to_string(*file.size) : "";
			sink(R"({"sha384_digest":)" + Quoted(file.sha384_digest) + size + "}");
		}
	}
	sink(kEnd);
}

} // namespace

bool InstalledFile::operator==(const InstalledFile& other) const {
	return sha384_digest == other.sha384_digest && size == other.size && link_target == other.link_target;
}

void InstalledFileTable::Add(std::string_view name, const InstalledFile& file) {
	list_.Add(name, Pack(file));
}

InstalledFile InstalledFileTable::At(std::size_t at) const {
	return Unpack(list_.Text(at));
}

std::optional<InstalledFile> InstalledFileTable::Find(std::string_view name) const {
	const std::optional<std::size_t> at = Place(name);
	return at ? std::optional(At(*at)) : std::nullopt;
}

std::string InstalledFilesPath(const std::string& id) {
	return dataupdate::StatePath(id, "installed_files.json");
}

std::optional<InstalledFiles> ReadInstalledFiles(const std::string& id) {
	InstalledFiles read;
	RecordForm form;
	form.entries = "files";
	form.take_entry = [&files = read.files](const std::string& recorded, const json& members) {
		const std::string name = TextOf(recorded);
		ExpectInRecord(files.Size() == 0 || files.Name(files.Size() - 1) < name);
		files.Add(name, FileOf(members));
	};
	form.take_record = [&read](const json& record) {
		ExpectInRecord(record.size() == 3);
		read.data_version = std::stoi(record.at("data_version").get_ref<const std::string&>());
		read.is_from_disk = record.at("rebuilt_from_disk").get<bool>();
	};
	return ReadRecordEntries(InstalledFilesPath(id), form) ? std::optional(std::move(read)) : std::nullopt;
}

bool SeemsCurrent(const std::string& id, int version) {
	const std::string path = InstalledFilesPath(id);
	std::ifstream file(path, std::ios::binary);
	struct stat own {};
	struct stat librarys {};
	return NextIs(file, Head(version)) &&
	       NextIs(file.seekg(1 - static_cast<std::streamoff>(sizeof kEnd), std::ios::end), kEnd) &&
	       stat(path.c_str(), &own) == 0 && stat(dataupdate::StatusPath(id).c_str(), &librarys) == 0 &&
	       std::tie(own.st_mtim.tv_sec, own.st_mtim.tv_nsec) >=
	           std::tie(librarys.st_mtim.tv_sec, librarys.st_mtim.tv_nsec);
}

void ConfirmInstalledFiles(const std::string& id) {
	// Without success the record is only read once more.
	[[maybe_unused]] const int ignored = utimensat(AT_FDCWD, InstalledFilesPath(id).c_str(), nullptr, 0);
}

void WriteInstalledFiles(const std::string& id, const InstalledFiles& record) {
	WriteWholeFile(InstalledFilesPath(id), [&record](const TextSink& sink) { Encode(record, sink); });
}

void DropInstalledFiles(const std::string& id) {
	const std::filesystem::path path = InstalledFilesPath(id);
	const bool is_gone = unlink(path.c_str()) == 0;
	if (is_gone ? !SyncDirectory(path.parent_path()) : errno != ENOENT) {
		syslog(LOG_WARNING, "%s cannot be removed (%s)", path.c_str(), std::strerror(errno));
	}
}

} // namespace tarn::ctl
