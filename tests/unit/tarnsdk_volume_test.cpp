#include "platform/tarnsdk/volume_list.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <tarncore/tarncore.h>
#include <tarnsdk/volume.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

namespace {

using tarn::sdk::ListVolumes;
using tarn::sdk::MayHostServiceData;
using tarn::sdk::MountTable;
using tarn::sdk::ReadVolumeConfig;
using tarn::sdk::Volume;
using tarn::sdk::VolumeConfig;
using tarn::test::SyslogCapture;
using tarn::test::TemporaryDirectory;
using tarn::test::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;

/** A line of a mount table. */
std::string Line(const std::string& target, const std::string& type, const std::string& source = "/dev/sdz1",
    const std::string& options = "rw,relatime", const std::string& fs_options = "rw") {
	static int id = 100;
	return std::to_string(++id) + " 1 8:1 / " + target + " " + options + " shared:1 - " + type + " " + source + " " +
	       fs_options + "\n";
}

class Config : public testing::Test {
protected:
	VolumeConfig Of(const std::string& content) const {
		WriteFile(path_, content);
		VolumeConfig config;
		EXPECT_EQ(ReadVolumeConfig(path_, config), 0);
		return config;
	}

	SyslogCapture log_;
	TemporaryDirectory directory_;
	std::string path_ = directory_ / "volumes.conf";
};

TEST_F(Config, WithoutAFileTheDefaultPatternStandsAlone) {
	VolumeConfig config;
	EXPECT_EQ(ReadVolumeConfig(path_, config), 0);
	EXPECT_THAT(config.patterns, ElementsAre("/volume*"));
	EXPECT_THAT(config.directories, IsEmpty());
	EXPECT_THAT(config.exclusions, IsEmpty());
	EXPECT_EQ(log_.Lines().size(), 0U);
}

TEST_F(Config, DirectivesAreCollectedAndPatternsReplaceTheDefault) {
	const VolumeConfig config = Of("# volumes\n\npattern /data*\n\tpattern\t/mnt/*  # disks\r\n"
	                               "directory /srv/my data/\ndirectory /srv/a#b\nexclude /dataUSB*");
	EXPECT_THAT(config.patterns, ElementsAre("/data*", "/mnt/*"));
	EXPECT_THAT(config.directories, ElementsAre("/srv/my data", "/srv/a#b"));
	EXPECT_THAT(config.exclusions, ElementsAre("/dataUSB*"));
	EXPECT_EQ(log_.Lines().size(), 0U);
}

TEST_F(Config, DirectoryAloneKeepsTheDefaultPattern) {
	EXPECT_THAT(Of("directory /srv\n").patterns, ElementsAre("/volume*"));
}

TEST_F(Config, KnowsEveryDirectiveThatIsListed) {
	for (const std::string& name : tarn::VolumeDirectives()) {
		Of(name + " /x\n");
		EXPECT_EQ(log_.Lines().size(), 0U) << name;
	}
}

TEST_F(Config, LinesThatCannotBeUnderstoodAreToldWithTheirPlaceAndSkipped) {
	const VolumeConfig config = Of("volume /x\npattern\ndirectory   # nothing\nexclude relative\ndirectory /" +
	                               std::string(5000, 'x') + "\ndirectory /ok\n");
	EXPECT_THAT(config.directories, ElementsAre("/ok"));
	EXPECT_THAT(config.exclusions, IsEmpty());
	EXPECT_EQ(log_.Lines().size(), 5U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_ + ":1:", "unknown directive"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_ + ":2:", "missing"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_ + ":3:", "missing"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_ + ":4:", "not absolute"}), 1U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_ + ":5:", "too long"}), 1U);
}

TEST_F(Config, UnreadableFileIsAnErrorAndNotTheDefault) {
	ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
	VolumeConfig config;
	EXPECT_NE(ReadVolumeConfig(path_, config), 0);
	EXPECT_FALSE(MayHostServiceData(path_, "/volume1"));
}

TEST_F(Config, ExcludedVolumesMayNotHostServiceData) {
	Of("exclude /volumeUSB*\nexclude /srv/[ab]\n");
	EXPECT_TRUE(MayHostServiceData(path_, "/volume1"));
	EXPECT_FALSE(MayHostServiceData(path_, "/volumeUSB1"));
	EXPECT_FALSE(MayHostServiceData(path_, "/srv/a"));
	EXPECT_TRUE(MayHostServiceData(path_, "/volumeUSB1/below"));
}

class Volumes : public testing::Test {
protected:
	int List(const std::string& mounts, const std::string& config = "") {
		WriteFile(directory_ / "mountinfo", mounts);
		WriteFile(directory_ / "volumes.conf", config);
		return ListVolumes({directory_ / "volumes.conf", directory_ / "mountinfo"}, volumes_);
	}

	std::vector<std::string> Paths() const {
		std::vector<std::string> paths;
		for (const Volume& volume : volumes_) {
			paths.emplace_back(volume.record.mount_path);
		}
		return paths;
	}

	const TARNMountVolInfo& Record(const std::string& path) const {
		for (const Volume& volume : volumes_) {
			if (path == volume.record.mount_path) {
				return volume.record;
			}
		}
		throw std::runtime_error("no volume " + path);
	}

	/** A directory of the test's that a mount table can name. */
	std::string Directory(const std::string& name) const {
		std::string path = directory_ / name;
		mkdir(path.c_str(), 0755);
		return path;
	}

	SyslogCapture log_;
	TemporaryDirectory directory_;
	std::vector<Volume> volumes_;
};

TEST_F(Volumes, AreTheMatchingMountsOfStorageInByteOrder) {
	ASSERT_EQ(List(Line("/", "ext4") + Line("/volume2", "ext4") + Line("/volume10", "btrfs") + Line("/volume1", "xfs") +
	               Line("/volume1/share", "ext4") + Line("/volumetmp", "tmpfs", "tmpfs") +
	               Line("/volumeproc", "proc", "proc") + Line("/volumenfs", "nfs4", "server:/x") +
	               Line("/volumecifs", "cifs", "//server/x") + Line("/home", "ext4")),
	    0);
	EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume10", "/volume2"));
}

TEST_F(Volumes, PathsWithBlanksAreDecoded) {
	ASSERT_EQ(List(Line("/volume\\040one", "ext4")), 0);
	EXPECT_THAT(Paths(), ElementsAre("/volume one"));
}

TEST_F(Volumes, LaterMountHidesAnEarlierOneAtItsPath) {
	ASSERT_EQ(List(Line("/volume1", "ext4") + Line("/volume1", "tmpfs", "tmpfs") + Line("/volume2", "tmpfs", "tmpfs") +
	               Line("/volume2", "ext4")),
	    0);
	EXPECT_THAT(Paths(), ElementsAre("/volume2"));
}

TEST_F(Volumes, RecordsAreMeasured) {
	const std::string path = Directory("disk");
	ASSERT_EQ(List(Line(path, "ext4"), "pattern " + directory_ / "d*"), 0);
	struct statvfs state = {};
	ASSERT_EQ(statvfs(path.c_str(), &state), 0);
	const TARNMountVolInfo& record = Record(path);
	EXPECT_EQ(record.total_bytes, std::uint64_t{state.f_blocks} * state.f_frsize);
	EXPECT_GT(record.free_bytes, 0U);
	EXPECT_LE(record.free_bytes, record.total_bytes);
	EXPECT_EQ(record.flags, static_cast<std::uint32_t>(TARN_VOLUME_FLAG_DATA));
	EXPECT_NE(record.healthy, 0U);
	EXPECT_NE(record.writable, 0U);
	EXPECT_EQ(record.next, nullptr);
}

TEST_F(Volumes, ReadOnlyMountOrFileSystemIsNotWritable) {
	const std::string mount = Directory("mount");
	const std::string system = Directory("system");
	ASSERT_EQ(List(Line(mount, "ext4", "/dev/sdz1", "ro,relatime", "rw") +
	                   Line(system, "ext4", "/dev/sdz2", "rw,relatime", "ro,errors=remount-ro"),
	              "pattern " + directory_ / "*"),
	    0);
	EXPECT_THAT(Paths(), ElementsAre(mount, system));
	for (const std::string& path : {mount, system}) {
		EXPECT_EQ(Record(path).writable, 0U) << path;
		EXPECT_NE(Record(path).healthy, 0U) << path;
	}
}

TEST_F(Volumes, OneThatDoesNotAnswerIsListedAsUnfitAndTold) {
	ASSERT_EQ(List(Line(directory_ / "gone", "ext4"), "pattern " + directory_ / "*"), 0);
	ASSERT_THAT(Paths(), ElementsAre(directory_ / "gone"));
	EXPECT_EQ(volumes_[0].error, ENOENT);
	EXPECT_EQ(volumes_[0].record.healthy, 0U);
	EXPECT_EQ(volumes_[0].record.writable, 0U);
	EXPECT_EQ(volumes_[0].record.free_bytes, 0U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {directory_ / "gone"}), 1U);
}

TEST_F(Volumes, ListedDirectoriesCountOnAnyFileSystem) {
	const std::string named = Directory("named");
	WriteFile(directory_ / "file", "");
	const std::string config =
	    "directory " + named + "/\ndirectory " + directory_ / "absent" + "\ndirectory " + directory_ / "file";
	ASSERT_EQ(List(Line("/", "tmpfs", "tmpfs"), config), 0);
	EXPECT_THAT(Paths(), ElementsAre(named));
	EXPECT_NE(Record(named).writable, 0U);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"no directory"}), 2U);
}

TEST_F(Volumes, ListedDirectoryIsReadOnlyWithTheMountThatHoldsIt) {
	const std::string disk = Directory("disk");
	const std::string named = Directory("disk/named");
	ASSERT_EQ(symlink(named.c_str(), (directory_ / "link").c_str()), 0);
	const std::string config = "directory " + named + "\ndirectory " + directory_ / "link";
	const std::string root = Line("/", "ext4");
	ASSERT_EQ(List(root + Line(disk, "ext4", "/dev/sdz1", "ro"), config), 0);
	EXPECT_EQ(Record(named).writable, 0U);
	EXPECT_EQ(Record(directory_ / "link").writable, 0U);
	ASSERT_EQ(List(root + Line(disk, "ext4", "/dev/sdz1", "ro") + Line(disk, "ext4"), config), 0);
	EXPECT_NE(Record(named).writable, 0U);
}

TEST_F(Volumes, MatchingMountThatIsListedTooCountsOnce) {
	const std::string disk = Directory("disk");
	ASSERT_EQ(List(Line(disk, "ext4"), "pattern " + directory_ / "d*" + "\ndirectory " + disk), 0);
	EXPECT_THAT(Paths(), ElementsAre(disk));
}

TEST_F(Volumes, UnreadableSourcesAreErrors) {
	WriteFile(directory_ / "volumes.conf", "");
	EXPECT_EQ(ListVolumes({directory_ / "volumes.conf", directory_ / "absent"}, volumes_), ENOENT);
	EXPECT_EQ(ListVolumes({directory_.Path(), "/proc/self/mountinfo"}, volumes_), EIO);
	EXPECT_EQ(log_.Count(LOG_ERR), 2U);
}

// Not "/", which is no mount point in a chroot.
TEST_F(Volumes, RealMountTableNamesTheFileSystemThatItIsReadFrom) {
	const MountTable table("/proc/self/mountinfo");
	ASSERT_TRUE(table.IsRead());
	ASSERT_EQ(table.ByPath().count("/proc"), 1U);
	EXPECT_EQ(table.IsReadOnlyAt("/proc"), table.ByPath().at("/proc").is_read_only);
}

TEST(VolumeInterface, RefusesWhatIsNoVolume) {
	TARNMountVolInfo record = {};
	EXPECT_EQ(TARNMountVolInfoGet("/nonexistent/volume", &record), -1);
	EXPECT_EQ(TLIBCErrGet(), ENODEV);
	EXPECT_EQ(TARNMountVolInfoGet(nullptr, &record), -1);
	EXPECT_EQ(TLIBCErrGet(), EINVAL);
	EXPECT_EQ(TARNMountVolInfoGet("/", nullptr), -1);
	EXPECT_EQ(TARNVolumeServicePolicy(nullptr), 0);
	TARNMountVolInfoFree(nullptr);
}

TEST(VolumeInterface, EnumerationAgreesWithTheSingleRecords) {
	TARNMountVolInfo* const list = TARNMountVolAllEnum(0, 1, 0);
	std::vector<Volume> expected;
	ASSERT_EQ(ListVolumes({}, expected), 0);
	std::size_t count = 0;
	for (const TARNMountVolInfo* volume = list; volume != nullptr; volume = volume->next, ++count) {
		ASSERT_LT(count, expected.size());
		EXPECT_STREQ(volume->mount_path, expected[count].record.mount_path);
		TARNMountVolInfo record = {};
		EXPECT_EQ(TARNMountVolInfoGet(volume->mount_path, &record), expected[count].error == 0 ? 0 : -1);
		EXPECT_STREQ(record.mount_path, volume->mount_path);
	}
	EXPECT_EQ(count, expected.size());
	if (expected.empty()) {
		EXPECT_EQ(TLIBCErrGet(), ENODEV);
	}
	TARNMountVolInfoFree(list);
}

} // namespace
