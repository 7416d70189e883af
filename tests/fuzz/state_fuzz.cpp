// Records of a database as a damaged disk may leave them: each is understood or not, and the quick reader of
// version.json says what the general one says. The input is a byte that says which record it is, and the record. Writes
// to the machine's own paths, so it is run in scripts/sandbox.
#include "dataupdate/installation.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"
#include "entry.h"
#include "host/library/checked_info_getter.h"
#include "host/library/hold.h"
#include "host/library/installed_files.h"
#include "host/library/installed_package.h"
#include "host/library/rejection.h"
#include "host/library/run_record.h"
#include "host/terminal/progress_file.h"
#include "scratch.h"

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace {

using tarn::dataupdate::DatabaseStatus;
using tarn::dataupdate::IOUtils;
using tarn::dataupdate::UpdateError;
using tarn::test::Require;

constexpr char kId[] = "fuzz";

std::optional<DatabaseStatus> ReadStatus() {
	try {
		return tarn::ctl::CheckedInfoGetter(std::make_shared<IOUtils>(), nullptr).GetDatabaseStatus(kId);
	} catch (const UpdateError& error) {
		Require(*error.what() != '\0', "a refusal has a reason");
		return std::nullopt;
	}
}

void CompareReaders() {
	const std::optional<DatabaseStatus> status = ReadStatus();
	auto record = tarn::dataupdate::ReadLargeRecord(kId);
	if (record) {
		Require(status && tarn::dataupdate::InstalledRecord::TakeStatus(std::move(*record)) == *status,
		    "both readers say the same");
	}
}

void ReadFiles() {
	const auto record = tarn::ctl::ReadInstalledFiles(kId);
	for (std::size_t at = 0; record && at < record->files.Size(); ++at) {
		Require(record->files.Place(record->files.Name(at)) == at, "a name has one place");
		static_cast<void>(record->files.At(at));
	}
	if (record) {
		tarn::ctl::WriteInstalledFiles(kId, *record);
		const auto again = tarn::ctl::ReadInstalledFiles(kId);
		Require(again && again->data_version == record->data_version && again->files == record->files,
		    "what is taken can be written");
	}
}

void ReadHeld() {
	const auto hold = tarn::ctl::ReadHold(kId);
	Require(hold.has_value(), "a hold that is not understood is a hold");
	Require(!hold->up_to || (*hold->up_to >= 0 && hold->problem.empty()), "a hold is of a version");
}

void ReadRefusal() {
	static_cast<void>(tarn::ctl::ReadRejection(kId));
}

void ReadRun() {
	static_cast<void>(tarn::ctl::ReadRunRecord(kId));
}

void ReadShown() {
	const auto progress = tarn::ctl::ReadProgress();
	Require(!progress || (tarn::test::IsOneLine(progress->line) && progress->process > 0), "progress is one line");
}

void ReadPublished() {
	static_cast<void>(tarn::ctl::PublicationTime(kId, 7));
}

void ReadFailed() {
	const auto failure = tarn::ctl::ReadFailureRecord(kId);
	Require(!failure || tarn::test::IsOneLine(failure->sentence), "a failure is one line");
}

struct Record {
	std::string path;
	void (*read)();
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const std::array<Record, 8> kRecords = {Record{tarn::dataupdate::StatusPath(kId), CompareReaders},
	    Record{tarn::ctl::InstalledFilesPath(kId), ReadFiles}, Record{tarn::ctl::HoldPath(kId), ReadHeld},
	    Record{tarn::ctl::RejectionPath(kId), ReadRefusal}, Record{tarn::ctl::RunRecordPath(kId), ReadRun},
	    Record{tarn::ctl::kProgressFile, ReadShown}, Record{tarn::ctl::InstalledPackagePath(kId), ReadPublished},
	    Record{tarn::dataupdate::StatePath(kId, "last_failure.json"), ReadFailed}};
	std::filesystem::create_directories(std::filesystem::path(kRecords.front().path).parent_path());
	std::filesystem::create_directories(tarn::dataupdate::kLockDirectory);
	if (size > 0) {
		const Record& record = kRecords.at(data[0] % kRecords.size());
		tarn::test::Put(record.path, tarn::test::Text(data + 1, size - 1));
		record.read();
	}
	return 0;
}
