#include "host/library/installed_files.h"

#include "base/file_io.h"
#include "base/json_scanner.h"
#include "base/text.h"
#include "base/unique_fd.h"
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
#include <utility>
#include <vector>

namespace tarn::ctl {

using dataupdate::InstalledRecord;

namespace {

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

/** Reads the record in the one form in which it is written. */
class RecordReader {
public:
	explicit RecordReader(int fd) : json_(fd) {}

	InstalledFiles Read() {
		int members = 0;
		json_.Members([&](const std::string& name) {
			static const std::vector<std::string> kNames = {"data_version", "rebuilt_from_disk", "files"};
			JsonScanner::Expect(members < 3 && name == kNames[static_cast<std::size_t>(members++)]);
			ReadMember(name);
		});
		json_.End();
		JsonScanner::Expect(members == 3);
		return std::move(record_);
	}

private:
	void ReadMember(const std::string& name) {
		if (name == "data_version") {
			record_.data_version = std::stoi(json_.Text());
		} else if (name == "rebuilt_from_disk") {
			record_.is_from_disk = json_.Boolean();
		} else {
			json_.Members([this](const std::string& file) { ReadFile(file); });
		}
	}

	void ReadFile(const std::string& name) {
		JsonScanner::Expect(record_.files.Size() == 0 || last_ < name);
		last_ = name;
		file_ = {};
		json_.Members([this](const std::string& member) {
			if (member == "link_target") {
				file_.link_target = json_.Text();
			} else if (member == "sha384_digest") {
				file_.sha384_digest = json_.Text();
			} else {
				JsonScanner::Expect(member == "size");
				const std::int64_t size = json_.Integer();
				JsonScanner::Expect(size >= 0);
				file_.size = static_cast<std::uint64_t>(size);
			}
		});
		record_.files.Add(name, file_);
	}

	JsonScanner json_;
	InstalledFiles record_;
	InstalledFile file_;
	std::string last_;
};

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
void Encode(const InstalledFiles& record, const TextSink& sink) {
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "";
	builder["emitUTF8"] = true;
	const auto quoted = [&builder](const std::string& text) { return Json::writeString(builder, text); };
	sink(Head(record.data_version) + R"("rebuilt_from_disk":)" + (record.is_from_disk ? "true" : "false") +
	     R"(,"files":{)");
	for (std::size_t at = 0; at < record.files.Size(); ++at) {
		const InstalledFile file = record.files.At(at);
		sink((at == 0 ? "\n" : ",\n") + quoted(std::string(record.files.Name(at))) + ":");
		if (!file.link_target.empty()) {
			sink(R"({"link_target":)" + quoted(file.link_target) + "}");
		} else {
			const std::string size = file.size ? R"(,"size":)" + std::to_string(*file.size) : "";
			sink(R"({"sha384_digest":)" + quoted(file.sha384_digest) + size + "}");
		}
	}
	sink(kEnd);
}

/** Whether a name has no part that another spelling of it would leave out. */
bool IsPlain(std::string_view name) {
	for (std::size_t begin = 0; begin <= name.size();) {
		const std::size_t end = std::min(name.find('/', begin), name.size());
		const std::string_view part = name.substr(begin, end - begin);
		if (part.empty() || part == "." || part == "..") {
			return false;
		}
		begin = end + 1;
	}
	return true;
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
	const UniqueFd file(open(InstalledFilesPath(id).c_str(), O_RDONLY | O_CLOEXEC));
	try {
		return file ? std::optional(RecordReader(file.Get()).Read()) : std::nullopt;
	} catch (const UnexpectedJson&) {
		return std::nullopt;
	} catch (const std::logic_error&) {
		return std::nullopt; // The version is no number.
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
	WriteWholeFile(InstalledFilesPath(id), [&record](const TextSink& sink) { Encode(record, sink); });
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
	const std::string_view below = std::string_view(name).substr(std::min(install_prefix.size(), name.size()));
	if (StartsWith(name, install_prefix) && StartsWith(below, "/") && IsPlain(below.substr(1))) {
		return std::string(below.substr(1)); // Nearly every name; paths take long for many.
	}
	const std::filesystem::path path = std::filesystem::path(name).lexically_normal();
	const std::filesystem::path relative = path.is_absolute() ? path.lexically_relative(install_prefix) : path;
	if (relative.empty() || *relative.begin() == ".." || relative == ".") {
		return std::nullopt;
	}
	return relative.string();
}

bool ListsAllFiles(const InstalledRecord& record) {
	for (std::size_t at = 0; at < record.files.Size(); ++at) {
		if (!StartsWith(record.files.Name(at), "/")) {
			return false;
		}
	}
	return !record.files.IsEmpty();
}

const std::string& DigestOfNothing() {
	static const std::string kDigest = [] {
		std::istringstream nothing;
		return dataupdate::GetSha384(nothing);
	}();
	return kDigest;
}

bool IsListedDirectory(const std::string& digest, const std::string& path) {
	std::error_code ignored;
	return digest == DigestOfNothing() && std::filesystem::is_directory(std::filesystem::symlink_status(path, ignored));
}

bool Agree(const InstalledFiles& record, const InstalledRecord& listed, const std::string& install_prefix) {
	if (record.data_version != listed.data_version ||
	    (ListsAllFiles(listed) && record.files.Size() != listed.files.Size())) {
		return false;
	}
	for (std::size_t at = 0; at < listed.files.Size(); ++at) {
		const std::string digest = listed.files.Text(at);
		const auto name = RelativeName(std::string(listed.files.Name(at)), install_prefix);
		const auto file = name ? record.files.Find(*name) : std::nullopt;
		const bool agree =
		    file ? file->sha384_digest == digest : name && IsListedDirectory(digest, install_prefix + "/" + *name);
		if (!agree) {
			return false;
		}
	}
	return true;
}

std::optional<InstalledFiles> ReadCredibleFiles(
    const std::string& id, const InstalledRecord& listed, const std::string& install_prefix) {
	if (dataupdate::IsReplacementMarked(id)) {
		return std::nullopt;
	}
	std::optional<InstalledFiles> record = ReadInstalledFiles(id);
	return record && Agree(*record, listed, install_prefix) ? std::move(record) : std::nullopt;
}

} // namespace tarn::ctl
