// Kits in the server's place, over doubles of the library's update.
#include "base/unique_fd.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/library/kit_offer.h"
#include "host/library/run_record.h"
#include "kit/writer.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using dataupdate::RemoteInfo;
using dataupdate::UpdateError;
using testing::_;
using testing::HasSubstr;

constexpr char kFullLink[] = "https://server/geo_v5.tarn";

std::string DiffLink(int version) {
	return "https://server/geo_d" + std::to_string(version) + ".tarn";
}

/** What an update was asked to do. */
struct Asked {
	int from = 0;
	int to = 0;
	std::vector<int> diffs;
};

class ImportCommandTest : public test::FixedPathsTest {
protected:
	ImportCommandTest() {
		doubles_.services.read_record = [this](const std::string&) {
			return dataupdate::InstalledRecord(installed_, 0, {});
		};
		doubles_.services.write_record = [this](const std::string&, const dataupdate::InstalledRecord& record) {
			installed_ = record.data_version;
		};
		ON_CALL(*doubles_.updater, Update)
		    .WillByDefault([this](const std::string&, const DatabaseStatus& status, const RemoteInfo& remote,
		                       const std::map<int, DiffInfo>& diffs, auto&&...) {
			    asked_.push_back({status.data_version, remote.data_version, {}});
			    for (const auto& [version, diff] : diffs) {
				    asked_.back().diffs.push_back(version);
			    }
			    on_update_();
			    DatabaseStatus updated;
			    updated.data_version = remote.data_version;
			    return updated;
		    });
	}

	static std::string Document() {
		const std::string diffs = R"("4":{"download_link":")" + DiffLink(4) +
		                          R"(","file_size":4},"5":{"download_link":")" + DiffLink(5) + R"(","file_size":4})";
		return R"({"deprecated":false,"db_list":{"geo":{"data_version":"5","last_fetch_time":1,"deprecated":false,)"
		       R"("download_link":")" +
		       std::string(kFullLink) + R"(","diff_files":{)" + diffs + "}}}}";
	}
	/** Packages of "geo" up to version 5. */
	void MakeKit(const std::vector<kit::Part>& parts, const std::string& document = Document()) {
		std::vector<kit::Package> packages;
		for (kit::Part part : parts) {
			const std::string content = NameOf(part);
			const std::string path = directory_ / content;
			test::WriteFile(path, content);
			part.size = content.size();
			packages.push_back({part, UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC))});
		}
		const UniqueFd fd(open(kit_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
		kit::Write(fd.Get(), document, std::move(packages), [](std::uint64_t) {});
	}
	ExitCode Run(std::vector<std::string> ids = {}, bool force = false) {
		Options options;
		options.path = kit_;
		options.ids = std::move(ids);
		options.force = force;
		return kImportCommand.run(doubles_.services, options);
	}
	/** What is fetched for a link while a database is installed, or the message of the failure. */
	std::string Fetched(const std::string& link) {
		std::string fetched;
		on_update_ = [&] {
			try {
				dataupdate::IOUtils().Download(directory_ / "fetched", link);
				fetched = test::ReadFile(directory_ / "fetched");
			} catch (const UpdateError& error) {
				fetched = error.what();
			}
		};
		EXPECT_EQ(Run({"geo"}), kDone);
		on_update_ = [] {};
		installed_ = 3;
		return fetched;
	}

	test::TemporaryDirectory directory_;
	test::Doubles doubles_;
	std::string kit_ = directory_ / "zones.kit";
	const kit::Part full_ = {kit::Kind::kFull, "geo", 5, 0, {}};
	const kit::Part fourth_ = {kit::Kind::kDiff, "geo", 4, 0, {}};
	const kit::Part fifth_ = {kit::Kind::kDiff, "geo", 5, 0, {}};
	int installed_ = 3;
	std::vector<Asked> asked_;
	std::function<void()> on_update_ = [] {};
};

TEST_F(ImportCommandTest, OffersTheKitsVersionAndDiffPackagesToTheLibrary) {
	MakeKit({fourth_, fifth_});
	EXPECT_EQ(Run(), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: updated from version 3 to version 5\n");
	ASSERT_EQ(asked_.size(), 1U);
	EXPECT_EQ(asked_[0].from, 3);
	EXPECT_EQ(asked_[0].to, 5);
	EXPECT_EQ(asked_[0].diffs, (std::vector<int>{4, 5}));
	EXPECT_EQ(ReadRunRecord("geo")->operation, "import");
	EXPECT_EQ(Run(), kDone);
	EXPECT_EQ(asked_.size(), 1U) << "up to date";
}

TEST_F(ImportCommandTest, GivesEachLinkItsOwnPackageAndNoOther) {
	MakeKit({full_, fourth_, fifth_});
	EXPECT_EQ(Fetched(kFullLink), "geo_v5.tarn");
	EXPECT_EQ(Fetched(DiffLink(4)), "geo_d4.tarn");
	EXPECT_EQ(Fetched(DiffLink(5)), "geo_d5.tarn");
	EXPECT_EQ(Fetched("https://server/other"), "The kit " + kit_ + " has nothing for the link https://server/other");
}

TEST_F(ImportCommandTest, SaysWhichPackagesAKitWithoutTheFullOneHas) {
	MakeKit({fourth_, fifth_});
	EXPECT_THAT(
	    Fetched(kFullLink), HasSubstr("has no full package of geo, and its diff packages from version 3 to 5 "));
}

TEST_F(ImportCommandTest, LeavesALaterVersionAlone) {
	MakeKit({full_});
	installed_ = 6;
	EXPECT_EQ(Run(), kAboveOffered);
	EXPECT_EQ(doubles_.out.str(),
	    "geo: installed 6 is above the kit's 5; nothing was changed. \"import --force\" installs the kit's version\n");
	EXPECT_TRUE(asked_.empty());
}

TEST_F(ImportCommandTest, GoesBackByTheFullPackageWhenItIsForced) {
	MakeKit({full_, fourth_, fifth_});
	installed_ = 6;
	EXPECT_EQ(Run({}, true), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: went back from version 6 to version 5\n");
	ASSERT_EQ(asked_.size(), 1U);
	EXPECT_EQ(asked_[0].from, -1);
	EXPECT_TRUE(asked_[0].diffs.empty()) << "they would leave what only the later version has";
	EXPECT_EQ(installed_, 5);
}

TEST_F(ImportCommandTest, IsForcedForwardByDiffPackagesAsEver) {
	MakeKit({fourth_, fifth_});
	EXPECT_EQ(Run({}, true), kDone);
	ASSERT_EQ(asked_.size(), 1U);
	EXPECT_EQ(asked_[0].from, 3);
	EXPECT_EQ(asked_[0].diffs, (std::vector<int>{4, 5}));
}

TEST_F(ImportCommandTest, LeavesAnUnfinishedLaterVersionToALaterKit) {
	MakeKit({full_});
	installed_ = 6;
	test::WriteFile("/var/lib/data_update/geo/version.json", "{}"); // A mark counts beside a record only.
	test::WriteFile("/var/lib/data_update/geo/replacing", "");
	EXPECT_EQ(Run(), kAboveOffered);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("was not finished, and version 5 is older"));
	EXPECT_TRUE(asked_.empty());
	EXPECT_EQ(Run({}, true), kDone);
	EXPECT_EQ(asked_.size(), 1U);
}

TEST_F(ImportCommandTest, TakesOnlyDatabasesThatTheKitAndTheDeviceHave) {
	MakeKit({full_});
	EXPECT_EQ(Run({"zip"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("The kit " + kit_ + " has no package of zip, but is for geo"));
	EXPECT_EQ(Run({"nope"}), kUnsupported);
	MakeKit({{kit::Kind::kFull, "abroad", 5, 0, {}}});
	try {
		Run();
		FAIL() << "none of its databases is here";
	} catch (const CommandError& error) {
		EXPECT_EQ(error.Code(), kUnsupported);
		EXPECT_EQ(error.what(), "The kit " + kit_ + " is for abroad, and no such database is configured here");
	}
}

TEST_F(ImportCommandTest, NamesTheKitWhoseDocumentIsUseless) {
	MakeKit({full_}, R"({"db_list":{}})");
	EXPECT_EQ(Run({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("The document of the kit " + kit_ + " "));
	for (const std::string& document : {std::string("[]"), std::string("<html>"), std::string(5000, '[')}) {
		MakeKit({full_}, document);
		EXPECT_THROW(Run({"geo"}), CommandError) << document;
	}
}

TEST_F(ImportCommandTest, DropsTheCachedDocumentBeforeALaterVersionIsInstalled) {
	test::WriteFile(dataupdate::kCachedInfo, "the server's");
	MakeKit({full_});
	installed_ = 5;
	EXPECT_EQ(Run(), kDone);
	installed_ = 6;
	EXPECT_EQ(Run({}, true), kDone) << "back to version 5";
	EXPECT_EQ(test::ReadFile(dataupdate::kCachedInfo), "the server's");
	installed_ = 3;
	on_update_ = [] {
		EXPECT_FALSE(std::filesystem::exists(dataupdate::kCachedInfo));
		throw UpdateError("killed here");
	};
	EXPECT_EQ(Run(), kFailed);
	EXPECT_EQ(installed_, 3);
}

TEST_F(ImportCommandTest, InstallsThoughSomebodyFetchesTheDocument) {
	test::WriteFile(dataupdate::kCachedInfo, "the server's");
	MakeKit({full_});
	const dataupdate::FileLock fetching(dataupdate::kFreshInfoLock, 0);
	EXPECT_EQ(Run(), kDone);
	EXPECT_EQ(installed_, 5);
	EXPECT_EQ(test::ReadFile(dataupdate::kCachedInfo), "the server's");
}

} // namespace
} // namespace tarn::ctl
