#include "dataupdate/installation.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <locale>
#include <map>
#include <string>

namespace tarn::dataupdate {
namespace {

constexpr char kRecord[] = "/var/lib/data_update/geo/version.json";
const std::string kDigest = std::string(95, '0') + "f";

DatabaseStatus Status(const std::map<std::string, FileStatus>& files) {
	DatabaseStatus status;
	status.data_version = 12;
	status.last_fetch_time = 1700000000;
	status.file_statuses = files;
	return status;
}

class LargeRecordTest : public test::FixedPathsTest {
protected:
	/** Statuses of every kind: of no file, of one, of names that need escapes, and with digests that are none. */
	static std::vector<DatabaseStatus> Statuses() {
		const FileStatus digest(kDigest);
		return {DatabaseStatus(), Status({}), Status({{"/volume1/a", digest}}),
		    Status(
		        {{"a", FileStatus("odd")}, {"b/\"quoted\"\\\n\t\x01", digest}, {"\xc3\xa9 \xf0\x9f\x98\x80", digest}})};
	}
	/** Whether a record is read as the general reader reads it. */
	static void ExpectSame(const std::optional<InstalledRecord>& record, const DatabaseStatus& status) {
		ASSERT_TRUE(record);
		EXPECT_EQ(record->data_version, status.data_version);
		EXPECT_EQ(record->last_fetch_time, status.last_fetch_time);
		EXPECT_EQ(record->files, FileList(status.file_statuses));
	}
	const IOUtils io_{};
};

TEST_F(LargeRecordTest, IsWrittenByteForByteLikeAStatus) {
	for (const DatabaseStatus& status : Statuses()) {
		WriteRecord(io_, "geo", status);
		const std::string expected = test::ReadFile(kRecord);
		std::filesystem::remove_all("/var/lib/data_update/geo");
		WriteLargeRecord("geo", status);
		EXPECT_EQ(test::ReadFile(kRecord), expected);
		WriteLargeRecord("geo", InstalledRecord(status));
		EXPECT_EQ(test::ReadFile(kRecord), expected);
	}
}

/** Writes numbers as many countries do. */
class Grouping : public std::numpunct<char> {
	char do_thousands_sep() const override { return '.'; }
	std::string do_grouping() const override { return "\3"; }
};

TEST_F(LargeRecordTest, IsTheSameInEveryLocale) {
	const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
	WriteLargeRecord("geo", Status({}));
	std::locale::global(before);
	ExpectSame(ReadLargeRecord("geo"), Status({}));
}

TEST_F(LargeRecordTest, IsReadAsItWasWritten) {
	for (const DatabaseStatus& status : Statuses()) {
		WriteRecord(io_, "geo", status);
		ExpectSame(ReadLargeRecord("geo"), ReadRecord(io_, "geo"));
		EXPECT_EQ(InstalledRecord::TakeStatus(InstalledRecord(status)), status);
	}
}

TEST_F(LargeRecordTest, IsNeverReadOtherwiseThanByTheGeneralReader) {
	WriteRecord(
	    io_, "geo", Status({{"a", FileStatus("1f")}, {"b\\\t", FileStatus("2")}, {"\xc3\xa9", FileStatus("3")}}));
	const std::string whole = test::ReadFile(kRecord);
	int read = 0;
	for (std::size_t at = 0; at < whole.size(); ++at) {
		for (const char byte : {'\0', '"', '\\', '0', '-', '.', 'e', ',', ' ', '}', 'c', '\x7f', '\xff'}) {
			std::string changed = whole;
			changed[at] = byte;
			WriteFile(kRecord, changed);
			if (const auto record = ReadLargeRecord("geo")) {
				ExpectSame(record, ReadRecord(io_, "geo"));
				++read;
			}
		}
	}
	EXPECT_GT(read, 0);
}

TEST_F(LargeRecordTest, DoesNotWriteFilesThatDoNotExist) {
	InstalledRecord record(3, 4, {});
	record.files.Add("gone");
	record.files.Add("there", kDigest);
	WriteLargeRecord("geo", record);
	EXPECT_THAT(ReadRecord(io_, "geo").file_statuses, testing::ElementsAre(testing::Key("there")));
}

TEST_F(LargeRecordTest, LeavesToTheGeneralReaderWhateverIsNotInItsForm) {
	EXPECT_FALSE(ReadLargeRecord("geo"));
	WriteRecord(io_, "geo", Statuses().back());
	const std::string whole = test::ReadFile(kRecord);
	for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
		WriteFile(kRecord, whole.substr(0, length));
		EXPECT_FALSE(ReadLargeRecord("geo")) << length;
	}
	for (const char* record : {"[]", "{}", R"({"data_version": 1, "file_statuses": {}, "last_fetch_time": 1})",
	         R"({"data_version": "1x", "file_statuses": {}, "last_fetch_time": 1})",
	         R"({"data_version": "99999999999", "file_statuses": {}, "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {}, "last_fetch_time": 99999999999})",
	         R"({"data_version": "1", "file_statuses": [], "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {"a": {}}, "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {"a": {"sha384_digest": 1}}, "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {"a": {"sha384_digest": "1", "x": "2"}}, "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {"b": {"sha384_digest": "1"}, "a": {"sha384_digest": "1"}},
	             "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {"a": {"sha384_digest": "1"}, "a": {"sha384_digest": "1"}},
	             "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {"a": {"sha384_digest": ""}}, "last_fetch_time": 1})",
	         R"({"data_version": "1", "file_statuses": {}, "last_fetch_time": 2147483648})",
	         R"({"data_version": "1", "file_statuses": {}, "last_fetch_time": -2147483649})",
	         R"({"data_version": "1", "file_statuses": {}, "last_fetch_time": 18446744073709551615})",
	         R"({"data_version": "1", "file_statuses": {}, "last_fetch_time": 1.5})",
	         R"({"data_version": "1", "file_statuses": {}, "last_fetch_time": 1, "more": 2})",
	         R"({"data_version": "1", "file_statuses": {}, "last_fetch_time": 1} 2)",
	         R"({"data_version": "1", /* */ "file_statuses": {}, "last_fetch_time": 1})"}) {
		WriteFile(kRecord, record);
		EXPECT_FALSE(ReadLargeRecord("geo")) << record;
	}
}

TEST_F(LargeRecordTest, SaysWhereItCannotBeWritten) {
	std::filesystem::create_directories(kRecord);
	EXPECT_EQ(MessageOf([] { WriteLargeRecord("geo", InstalledRecord()); }), std::string("Fail to write: ") + kRecord);
	WriteFile("/var/lib/data_update/poi", "in the way");
	EXPECT_EQ(MessageOf([] { WriteLargeRecord("poi", InstalledRecord()); }),
	    "Fail to create parent folder: /var/lib/data_update/poi/version.json");
}

} // namespace
} // namespace tarn::dataupdate
