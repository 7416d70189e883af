#include "base/record_entries.h"
#include "dataupdate/installation.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"

#include <boost/filesystem.hpp>
#include <json/writer.h>
#include <nlohmann/json.hpp>

#include <charconv>
#include <cstdint>
#include <fstream>
#include <limits>
#include <locale>

namespace tarn::dataupdate {

namespace {

using nlohmann::json;

int ToInt(const json& number) {
	using Limits = std::numeric_limits<int>;
	const bool is_int = number.is_number_unsigned()
	                        ? number.get<std::uint64_t>() <= Limits::max()
	                        : number.is_number_integer() && number.get<std::int64_t>() >= Limits::min();
	ExpectInRecord(is_int);
	return number.get<int>();
}

/** Nothing but the digits and the sign: whatever else std::stoi() takes is left to the reader that uses it. */
int ParseVersion(const std::string& text) {
	int version = 0;
	const auto result = std::from_chars(text.data(), text.data() + text.size(), version);
	ExpectInRecord(result.ec == std::errc() && result.ptr == text.data() + text.size());
	return version;
}

void CreateParent(const std::string& path) {
	try {
		boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
	} catch (const boost::filesystem::filesystem_error&) {
		throw UpdateError("Fail to create parent folder: " + path);
	}
}

/**
 * Writes what JsonCpp's StyledStreamWriter("\t") makes of DatabaseStatus::ToJson(). The files come from a function,
 * which calls add(name, digest) for each.
 */
template<typename ForEachFile>
void WriteRecordText(const std::string& id, int version, int fetch_time, const ForEachFile& for_each_file) {
	const std::string path = StatusPath(id);
	CreateParent(path);
	std::ofstream file(path, std::ios::out);
	file.imbue(std::locale::classic()); // A host's own locale may group digits.
	file << "{\n\t\"data_version\" : \"" << version << "\",\n\t\"file_statuses\" : ";
	bool has_files = false;
	for_each_file([&](const std::string& name, const std::string& digest) {
		file << (has_files ? ",\n" : "\n\t{\n") << "\t\t" << Json::valueToQuotedString(name.c_str())
		     << " : \n\t\t{\n\t\t\t\"sha384_digest\" : " << Json::valueToQuotedString(digest.c_str()) << "\n\t\t}";
		has_files = true;
	});
	file << (has_files ? "\n\t}" : "{}") << ",\n\t\"last_fetch_time\" : " << fetch_time << "\n}\n";
	file.close();
	if (file.fail()) { // Also when it could not be opened.
		throw UpdateError(messages::kCannotWrite + path);
	}
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
	InstalledRecord read;
	RecordForm form;
	form.entries = "file_statuses";
	form.take_entry = [&files = read.files](const std::string& name, const json& file) {
		const auto& digest = file.at("sha384_digest").get_ref<const std::string&>();
		ExpectInRecord(file.size() == 1 && !digest.empty());
		ExpectInRecord(files.IsEmpty() || files.Name(files.Size() - 1) < name);
		files.Add(name, digest);
	};
	form.take_record = [&read](const json& record) {
		ExpectInRecord(record.size() == 3);
		read.data_version = ParseVersion(record.at("data_version").get_ref<const std::string&>());
		read.last_fetch_time = ToInt(record.at("last_fetch_time"));
	};
	return ReadRecordEntries(StatusPath(id), form) ? std::optional(std::move(read)) : std::nullopt;
}

void WriteLargeRecord(const std::string& id, const InstalledRecord& record) {
	WriteRecordText(id, record.data_version, record.last_fetch_time, [&files = record.files](const auto& add) {
		for (std::size_t at = 0; at < files.Size(); ++at) {
			if (files.HasText(at)) {
				add(std::string(files.Name(at)), files.Text(at));
			}
		}
	});
}

void WriteLargeRecord(const std::string& id, const DatabaseStatus& status) {
	WriteRecordText(id, status.data_version, status.last_fetch_time, [&status](const auto& add) {
		for (const auto& [name, file] : status.file_statuses) {
			add(name, file.sha384_digest);
		}
	});
}

} // namespace tarn::dataupdate
