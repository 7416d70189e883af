#include "base/json_scanner.h"
#include "base/unique_fd.h"
#include "dataupdate/installation.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"

#include <boost/filesystem.hpp>
#include <json/writer.h>

#include <fcntl.h>

#include <charconv>
#include <fstream>
#include <limits>

namespace tarn::dataupdate {

namespace {

int ToInt(std::int64_t number) {
	JsonScanner::Expect(number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max());
	return static_cast<int>(number);
}

/** Nothing but the digits and the sign: whatever else std::stoi() takes is left to the reader that uses it. */
int ParseVersion(const std::string& text) {
	int version = 0;
	const auto result = std::from_chars(text.data(), text.data() + text.size(), version);
	JsonScanner::Expect(result.ec == std::errc() && result.ptr == text.data() + text.size());
	return version;
}

/** Reads a record in the one form in which records are written: each member once, names in order. */
class RecordReader {
public:
	explicit RecordReader(int fd) : json_(fd) {}

	InstalledRecord Read() {
		json_.Members([this](const std::string& name) { ReadMember(name); });
		json_.End();
		JsonScanner::Expect(members_ == 3);
		return std::move(record_);
	}

private:
	void ReadMember(const std::string& name) {
		JsonScanner::Expect(last_member_ < name);
		last_member_ = name;
		++members_;
		if (name == "data_version") {
			record_.data_version = ParseVersion(json_.Text());
		} else if (name == "last_fetch_time") {
			record_.last_fetch_time = ToInt(json_.Integer());
		} else {
			JsonScanner::Expect(name == "file_statuses");
			json_.Members([this](const std::string& file) { ReadFile(file); });
		}
	}

	void ReadFile(const std::string& name) {
		JsonScanner::Expect(record_.files.IsEmpty() || last_file_ < name);
		last_file_ = name;
		bool has_digest = false;
		json_.Members([&](const std::string& member) {
			JsonScanner::Expect(member == "sha384_digest" && !has_digest);
			const std::string& digest = json_.Text();
			JsonScanner::Expect(!digest.empty());
			record_.files.Add(name, digest);
			has_digest = true;
		});
		JsonScanner::Expect(has_digest);
	}

	JsonScanner json_;
	InstalledRecord record_;
	std::string last_member_;
	std::string last_file_;
	int members_ = 0;
};

/** Writes what JsonCpp's StyledStreamWriter("\t") makes of DatabaseStatus::ToJson(). */
class RecordWriter {
public:
	explicit RecordWriter(const std::string& path) : path_(path), file_(path, std::ios::out) { Check(file_.is_open()); }

	void Begin(int version) { file_ << "{\n\t\"data_version\" : \"" << version << "\",\n\t\"file_statuses\" : "; }

	void Add(const std::string& name, const std::string& digest) {
		file_ << (has_files_ ? ",\n" : "\n\t{\n") << "\t\t" << Json::valueToQuotedString(name.c_str())
		      << " : \n\t\t{\n\t\t\t\"sha384_digest\" : " << Json::valueToQuotedString(digest.c_str()) << "\n\t\t}";
		has_files_ = true;
	}

	void End(int fetch_time) {
		file_ << (has_files_ ? "\n\t}" : "{}") << ",\n\t\"last_fetch_time\" : " << fetch_time << "\n}\n";
		file_.close();
		Check(!file_.fail());
	}

private:
	void Check(bool is_good) const {
		if (!is_good) {
			throw UpdateError(messages::kCannotWrite + path_);
		}
	}

	std::string path_;
	std::ofstream file_;
	bool has_files_ = false;
};

RecordWriter OpenRecord(const std::string& id) {
	const std::string path = StatusPath(id);
	try {
		boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
	} catch (const boost::filesystem::filesystem_error&) {
		throw UpdateError("Fail to create parent folder: " + path);
	}
	return RecordWriter(path);
}

} // namespace

InstalledRecord::InstalledRecord(int version, int fetch_time, FileList list)
    : data_version(version), last_fetch_time(fetch_time), files(std::move(list)) {}

InstalledRecord::InstalledRecord(const DatabaseStatus& status)
    : data_version(status.data_version), last_fetch_time(status.last_fetch_time), files(status.file_statuses) {}

DatabaseStatus InstalledRecord::TakeStatus(InstalledRecord record) {
	DatabaseStatus status;
	status.data_version = record.data_version;
	status.last_fetch_time = record.last_fetch_time;
	status.file_statuses = FileList::TakeStatuses(std::move(record.files));
	return status;
}

std::optional<InstalledRecord> ReadLargeRecord(const std::string& id) {
	const UniqueFd file(open(StatusPath(id).c_str(), O_RDONLY | O_CLOEXEC));
	try {
		return file ? std::optional(RecordReader(file.Get()).Read()) : std::nullopt;
	} catch (const UnexpectedJson&) {
		return std::nullopt;
	}
}

void WriteLargeRecord(const std::string& id, const InstalledRecord& record) {
	RecordWriter writer = OpenRecord(id);
	writer.Begin(record.data_version);
	for (std::size_t at = 0; at < record.files.Size(); ++at) {
		if (record.files.HasText(at)) {
			writer.Add(std::string(record.files.Name(at)), record.files.Text(at));
		}
	}
	writer.End(record.last_fetch_time);
}

void WriteLargeRecord(const std::string& id, const DatabaseStatus& status) {
	RecordWriter writer = OpenRecord(id);
	writer.Begin(status.data_version);
	for (const auto& [name, file] : status.file_statuses) {
		writer.Add(name, file.sha384_digest);
	}
	writer.End(status.last_fetch_time);
}

} // namespace tarn::dataupdate
