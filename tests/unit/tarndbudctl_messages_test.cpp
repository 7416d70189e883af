#include "dataupdate/messages.h"
#include "host/library/failure.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>

#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

namespace messages = dataupdate::messages;

/** One row of a table of docs/messages.md. */
struct Row {
	std::string message;
	std::string category;
	std::string exit_code;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
	return out << row.message << " | " << row.category << " | " << row.exit_code;
}

std::string Cell(const std::string& line, std::size_t number) {
	std::istringstream cells(line);
	std::string cell;
	for (std::size_t i = 0; i <= number; ++i) {
		std::getline(cells, cell, '|');
	}
	return cell.substr(1, cell.size() - 2);
}

/** The rows about the program and the library: those of other programs come
 * behind them. */
std::vector<Row> RowsOfTheProgram() {
	std::istringstream document(test::ReadFile(TARN_MESSAGES));
	std::vector<Row> rows;
	for (std::string line; std::getline(document, line) && line != "## The platform libraries";) {
		if (line.rfind("| `", 0) == 0) {
			const std::string message = Cell(line, 1);
			rows.push_back({message.substr(1, message.size() - 2), Cell(line, 2), Cell(line, 3)});
		}
	}
	return rows;
}

/** The category as the document names it: a failure of no known kind is just
 * that. */
std::string NameOf(Category category) {
	static const std::map<Category, std::string> kNames = {
	    {Category::kOther, "failure"},
	    {Category::kLocked, "locked"},
	    {Category::kLockUnusable, "lock unusable"},
	    {Category::kUnknownDatabase, "unknown database"},
	    {Category::kDownload, "download"},
	    {Category::kLowSpace, "low space"},
	    {Category::kNoSuitableVolume, "no suitable volume"},
	    {Category::kVolumesUnknown, "volumes unknown"},
	    {Category::kWrongConfiguration, "wrong configuration"},
	    {Category::kPackageRefused, "package refused"},
	    {Category::kPackageUnusable, "package unusable"},
	    {Category::kFilesMayBeAMixture, "files may be a mixture"},
	    {Category::kRefusedByCheck, "refused by check"},
	    {Category::kNoVerdict, "no verdict"},
	    {Category::kUndecodable, "undecodable"},
	    {Category::kNotWritable, "not writable"},
	};
	return kNames.at(category);
}

bool IsFailure(const Row& row) {
	return row.category != "part" && row.category != "log" && row.category != "result";
}

class LibraryMessageTest : public testing::TestWithParam<const char*> {};

// All but the one of an interruption, whose exit code follows from the signal.
INSTANTIATE_TEST_SUITE_P(Constants, LibraryMessageTest,
    testing::Values(messages::kOnProject, messages::kCannotLock, messages::kCannotOpenLock,
        messages::kCannotCreateDirectory, messages::kUnknownProject, messages::kMissingSetting, messages::kWrongType,
        messages::kInvalidValue, messages::kCannotSet, messages::kFileNotExist, messages::kCannotDecode,
        messages::kCannotWrite, messages::kInvalidRecord, messages::kCannotDownload, messages::kCannotOpenPackage,
        messages::kCannotExtract, messages::kLowSpace, messages::kDiffUpdate, messages::kFullUpdate,
        messages::kForceInstall, messages::kRefused, messages::kNoVerdict, messages::kNoSuitableVolume,
        messages::kCannotListVolumes, messages::kReserveOverflow));

TEST_P(LibraryMessageTest, HasARowWithItsCategoryAndExitCode) {
	int rows = 0;
	for (const Row& row : RowsOfTheProgram()) {
		if (row.message.rfind(GetParam(), 0) != 0) {
			continue;
		}
		++rows;
		if (IsFailure(row)) {
			const Failure failure = ExplainMessage(row.message, 0);
			EXPECT_EQ(row.category, NameOf(failure.category)) << row;
			EXPECT_EQ(row.exit_code, std::to_string(failure.code)) << row;
		}
	}
	EXPECT_GT(rows, 0);
}

} // namespace
} // namespace tarn::ctl
