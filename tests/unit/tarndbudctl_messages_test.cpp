#include "dataupdate/messages.h"
#include "host/library/failure.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>

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

/** The rows about the program and the library: those of other programs come behind them. */
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

class LibraryMessageTest : public testing::TestWithParam<const char*> {};

// All but the one of an interruption, whose exit code follows from the signal.
INSTANTIATE_TEST_SUITE_P(Constants, LibraryMessageTest,
    testing::Values(messages::kOnProject, messages::kCannotLock, messages::kCannotOpenLock,
        messages::kCannotCreateDirectory, messages::kUnknownProject, messages::kMissingSetting, messages::kWrongType,
        messages::kInvalidValue, messages::kCannotSet, messages::kFileNotExist, messages::kCannotDecode,
        messages::kCannotWrite, messages::kInvalidRecord, messages::kCannotDownload, messages::kCannotOpenPackage,
        messages::kCannotExtract, messages::kLowSpace, messages::kDiffUpdate, messages::kFullUpdate,
        messages::kForceInstall, messages::kNoSuitableVolume, messages::kCannotListVolumes,
        messages::kReserveOverflow));

TEST_P(LibraryMessageTest, HasARowWithTheExitCodeThatTheProgramEndsWith) {
	int rows = 0;
	for (const Row& row : RowsOfTheProgram()) {
		if (row.message.rfind(GetParam(), 0) == 0) {
			++rows;
			const std::string code = std::to_string(ExplainMessage(row.message, 0).code);
			EXPECT_TRUE(row.category != "failure" || row.exit_code == code) << row << ", and it ends with " << code;
		}
	}
	EXPECT_GT(rows, 0);
}

} // namespace
} // namespace tarn::ctl
