#include "base/document_limit.h"
#include "dataupdate/paths.h"
#include "host/library/checked_info_getter.h"
#include "host/library/services.h"
#include "mocks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include <memory>
#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

using testing::NiceMock;
using testing::Return;

constexpr char kPackage[] = "/volume1/@tmp/data_update/geo_d7";

TEST(DownloadLimitsTest, TakeADocumentForSmallAndSoon) {
	DownloadLimits limits;
	EXPECT_EQ(limits.For("http://x/", dataupdate::kCachedInfo).largest_bytes, kLargestDocument);
	EXPECT_EQ(limits.For("http://x/", dataupdate::kCachedInfo).seconds, 300U);
	limits.Hurry();
	EXPECT_EQ(limits.For("http://x/", dataupdate::kCachedInfo).seconds, 10U);
	EXPECT_EQ(limits.For("http://x/", kPackage).seconds, 0U);
}

TEST(DownloadLimitsTest, LetAPackageHaveWhatIsAnnouncedAndAMargin) {
	DownloadLimits limits;
	EXPECT_EQ(limits.For("http://x/", kPackage).largest_bytes, 0U);
	limits.Announce("http://x/", 1000);
	limits.Announce("http://x/", 2147483647);
	limits.Announce("http://x/", 3000);
	EXPECT_EQ(limits.For("http://x/", kPackage).largest_bytes, 2147483647U + 65536U);
	EXPECT_STREQ(limits.For("http://x/", kPackage).largest_is, "announced");
	EXPECT_EQ(limits.For("http://y/", kPackage).largest_bytes, 0U);
	for (const int nothing : {0, -1}) {
		limits.Announce("http://y/", nothing);
		EXPECT_EQ(limits.For("http://y/", kPackage).largest_bytes, 0U);
	}
}

TEST(DownloadLimitsTest, HoldAFullPackageToItsAllowance) {
	DownloadLimits limits;
	limits.Restrict("http://x/", 1000);
	EXPECT_EQ(limits.For("http://x/", kPackage).largest_bytes, 1000U);
	EXPECT_STREQ(limits.For("http://x/", kPackage).largest_is, "allowed");
	EXPECT_EQ(limits.For("http://y/", kPackage).largest_bytes, 0U);
	EXPECT_EQ(limits.For("http://x/", "/dev/null").seconds, 10U) << "where only the size is asked for";
}

class TestedGetter : public CheckedInfoGetter {
public:
	explicit TestedGetter(const std::shared_ptr<DownloadLimits>& limits)
	    : CheckedInfoGetter(std::make_shared<NiceMock<test::MockIOUtils>>(),
	          std::make_shared<NiceMock<test::MockServiceConfig>>(), limits) {}
	MOCK_METHOD(Json::Value, FetchDatabaseInfo, (), (const, override));
};

TEST(DownloadLimitsTest, LearnWhatTheDocumentAnnounces) {
	const auto limits = std::make_shared<DownloadLimits>();
	const NiceMock<TestedGetter> getter(limits);
	Json::Value document;
	std::istringstream(R"({"db_list":{"geo":{"diff_files":{"7":{"download_link":"http://x/d7","file_size":500}}}}})") >>
	    document;
	ON_CALL(getter, FetchDatabaseInfo).WillByDefault(Return(document));
	EXPECT_EQ(getter.GetDiffInfos("geo").size(), 1U);
	EXPECT_EQ(limits->For("http://x/d7", kPackage).largest_bytes, 500U + 65536U);
}

} // namespace
} // namespace tarn::ctl
