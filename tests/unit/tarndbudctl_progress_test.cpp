#include "dataupdate/updater.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <streambuf>
#include <string>

namespace tarn::ctl {
namespace {

using dataupdate::Phase;
using std::chrono::milliseconds;

constexpr std::uint64_t kMegabyte = 1000000;

Sample At(int time_ms, Phase phase, std::uint64_t serial) {
	Sample sample;
	sample.activity.phase = phase;
	sample.activity.serial = serial;
	sample.time += milliseconds(time_ms);
	return sample;
}

TEST(ProgressMeterTest, ShowsNothingWhileNothingIsDone) {
	ProgressMeter meter;
	EXPECT_EQ(meter.Line(At(0, Phase::kIdle, 0)), "");
}

TEST(ProgressMeterTest, ShowsADownloadByTheSizeOfItsFile) {
	ProgressMeter meter;
	Sample sample = At(0, Phase::kDownload, 1);
	sample.file_bytes = kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Downloading  1.0 MB");
	sample = At(1000, Phase::kDownload, 1);
	sample.file_bytes = 3 * kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Downloading  3.0 MB  2.0 MB/s");
}

TEST(ProgressMeterTest, TellsWhichPackageItIsAndHowLongItTakesWhereTheSizeIsKnown) {
	ProgressMeter meter;
	Sample sample = At(0, Phase::kDownload, 1);
	sample.download = {2, 5, 12 * kMegabyte};
	sample.file_bytes = kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Downloading package 2 of 5  1.0 MB of 12.0 MB  8 %");
	sample = At(1000, Phase::kDownload, 1);
	sample.download = {2, 5, 12 * kMegabyte};
	sample.file_bytes = 3 * kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Downloading package 2 of 5  3.0 MB of 12.0 MB  25 %  2.0 MB/s  5 s left");
}

TEST(ProgressMeterTest, TellsLongTimesInMinutesAndHours) {
	const auto line = [](std::uint64_t whole) {
		ProgressMeter meter;
		Sample sample = At(0, Phase::kDownload, 1);
		sample.download = {1, 1, whole};
		sample.file_bytes = kMegabyte;
		meter.Line(sample);
		sample = At(1000, Phase::kDownload, 1);
		sample.download = {1, 1, whole};
		sample.file_bytes = 2 * kMegabyte;
		return meter.Line(sample);
	};
	EXPECT_EQ(line(127 * kMegabyte), "Downloading  2.0 MB of 127.0 MB  1 %  1.0 MB/s  2 min 5 s left");
	EXPECT_EQ(line(7322 * kMegabyte), "Downloading  2.0 MB of 7.3 GB  0 %  1.0 MB/s  2 h 2 min left");
	EXPECT_EQ(line(kMegabyte), "Downloading  2.0 MB  1.0 MB/s"); // More than was announced.
}

TEST(DownloadPlanTest, FindsAPackageByItsPath) {
	PlanDownloads({{"/area/geo_d4", 100}, {"/area/geo_d5", 0}});
	const DownloadPlace place = PlaceOfDownload("/area/geo_d4");
	EXPECT_EQ(place.number, 1U);
	EXPECT_EQ(place.count, 2U);
	EXPECT_EQ(place.bytes, 100U);
	EXPECT_EQ(PlaceOfDownload("/area/geo_d5").number, 2U);
	EXPECT_EQ(PlaceOfDownload("/area/geo_d5").bytes, 0U);
	EXPECT_EQ(PlaceOfDownload("/area/geo_v5").number, 0U);
	PlanDownloads({});
	EXPECT_EQ(PlaceOfDownload("/area/geo_d4").count, 0U);
}

TEST(ProgressMeterTest, BeginsAnewWithTheNextDownload) {
	ProgressMeter meter;
	Sample sample = At(0, Phase::kDownload, 1);
	sample.file_bytes = kMegabyte;
	meter.Line(sample);
	sample = At(1000, Phase::kDownload, 3);
	sample.file_bytes = 2 * kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Downloading  2.0 MB");
}

TEST(ProgressMeterTest, ShowsUnpackingByWhatTheProcessWrites) {
	ProgressMeter meter;
	Sample sample = At(0, Phase::kUnpack, 1);
	sample.written_bytes = 500 * kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Unpacking");
	sample = At(2000, Phase::kUnpack, 1);
	sample.written_bytes = 504 * kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Unpacking  4.0 MB  2.0 MB/s");
}

TEST(ProgressMeterTest, ShowsTheReplacementByItsOwnCount) {
	ProgressMeter meter;
	Sample sample = At(0, Phase::kApply, 1);
	sample.activity.bytes = 7 * kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Replacing files  7.0 MB");
}

TEST(ProgressMeterTest, CountsDigestsOverFilesThatCameAndWentBetweenTwoLooks) {
	ProgressMeter meter;
	Sample sample = At(0, Phase::kHash, 1);
	sample.read_bytes = 100 * kMegabyte;
	meter.Line(sample);
	sample = At(200, Phase::kIdle, 52);
	EXPECT_EQ(meter.Line(sample), "Computing digests");
	sample = At(400, Phase::kHash, 99);
	sample.read_bytes = 108 * kMegabyte;
	EXPECT_EQ(meter.Line(sample), "Computing digests  8.0 MB  20.0 MB/s");
}

TEST(ProgressMeterTest, ForgetsAPhaseThatIsOver) {
	ProgressMeter meter;
	meter.Line(At(0, Phase::kHash, 1));
	EXPECT_EQ(meter.Line(At(500, Phase::kIdle, 2)), "Computing digests");
	EXPECT_EQ(meter.Line(At(501, Phase::kIdle, 2)), "");
}

TEST(ProgressMeterTest, SurvivesCountersThatCannotBeRead) {
	ProgressMeter meter;
	Sample sample = At(0, Phase::kHash, 1);
	sample.read_bytes = kMegabyte;
	meter.Line(sample);
	EXPECT_EQ(meter.Line(At(400, Phase::kHash, 1)), "Computing digests");
}

/** Takes text from any thread. */
class WatchedBuffer : public std::streambuf {
public:
	std::string Text() {
		const std::lock_guard<std::mutex> guard(mutex_);
		return text_;
	}

protected:
	std::streamsize xsputn(const char* text, std::streamsize count) override {
		const std::lock_guard<std::mutex> guard(mutex_);
		text_.append(text, static_cast<std::size_t>(count));
		return count;
	}
	int_type overflow(int_type character) override {
		const char text = traits_type::to_char_type(character);
		return xsputn(&text, 1) == 1 ? character : traits_type::eof();
	}

private:
	std::mutex mutex_;
	std::string text_;
};

TEST(ProgressLineTest, ShowsWhatTheLibraryDoesAndLeavesNothingBehind) {
	const test::TemporaryDirectory directory;
	const std::string file = directory / "file";
	test::WriteFile(file, "");
	std::filesystem::resize_file(file, 64 * kMegabyte);
	std::ostringstream out;
	WatchedBuffer buffer;
	std::ostream err(&buffer);
	Terminal terminal(out, err, true);
	{
		const ProgressLine progress(terminal);
		while (buffer.Text().find("Computing digests  ") == std::string::npos) {
			static_cast<void>(dataupdate::CalculateStatus({file}, "/"));
		}
	}
	const std::string text = buffer.Text();
	const std::string clear = "\r\x1b[K";
	ASSERT_GE(text.size(), clear.size());
	EXPECT_EQ(text.substr(text.size() - clear.size()), clear);
	EXPECT_EQ(out.str(), "");
}

} // namespace
} // namespace tarn::ctl
