#include "platform/tarncrypto/device_id.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <tarncrypto/tarncrypto.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

using tarn::crypto::DeviceId;
using tarn::crypto::FillHwid;
using tarn::crypto::HwidContext;
using tarn::test::SyslogCapture;
using tarn::test::TemporaryDirectory;
using tarn::test::WriteFile;
using testing::MatchesRegex;

constexpr const char* kMachineId = "0123456789abcdef0123456789abcdef";

// printf %s 0123456789abcdef0123456789abcdef | openssl dgst -sha256 -hmac tarn.data_update.device_id.v1
constexpr const char* kIdentifier = "027c0f5294ceccb52f87fdcd6293ee6844fd15428dc288b7ad553180f9b8890f";

class DeviceIdTest : public testing::Test {
protected:
	std::optional<std::string> Of(const std::string& content, int bytes = 16) const {
		WriteFile(first_, content);
		return DeviceId({first_, second_}, bytes);
	}

	SyslogCapture log_;
	TemporaryDirectory directory_;
	std::string first_ = directory_ / "machine-id";
	std::string second_ = directory_ / "dbus-machine-id";
};

TEST_F(DeviceIdTest, IsTheKeyedHashOfTheMachineId) {
	EXPECT_EQ(Of(std::string(kMachineId) + "\n", 32), kIdentifier);
	EXPECT_EQ(Of(std::string(kMachineId) + "\n", 16), std::string(kIdentifier).substr(0, 32));
	EXPECT_EQ(Of(kMachineId, 1), std::string(kIdentifier).substr(0, 2));
}

TEST_F(DeviceIdTest, DoesNotDependOnTheMachineIdsLetterCase) {
	EXPECT_EQ(Of("0123456789ABCDEF0123456789ABCDEF\n", 32), kIdentifier);
}

TEST_F(DeviceIdTest, DiffersBetweenMachinesAndHidesTheMachineId) {
	const auto one = Of("00000000000000000000000000000001\n");
	const auto other = Of("00000000000000000000000000000002\n");
	ASSERT_TRUE(one && other);
	EXPECT_NE(*one, *other);
	EXPECT_EQ(one->find("0000000000000001"), std::string::npos);
}

TEST_F(DeviceIdTest, ComesFromTheSecondFileWhenTheFirstIsNoUse) {
	WriteFile(second_, std::string(kMachineId) + "\n");
	for (const char* useless : {"", "uninitialized\n", "0123456789abcdef\n", "00000000000000000000000000000000\n",
	         "0123456789abcdef0123456789abcdeg\n", "0123456789abcdef0123456789abcdef0\n"}) {
		EXPECT_EQ(Of(useless, 32), kIdentifier) << useless;
	}
	std::filesystem::remove(first_);
	EXPECT_EQ(DeviceId({first_, second_}, 32), kIdentifier);
}

TEST_F(DeviceIdTest, IsAbsentWithoutAMachineId) {
	EXPECT_EQ(DeviceId({first_, second_}, 16), std::nullopt);
	EXPECT_EQ(log_.Lines().size(), 2U);
}

TEST_F(DeviceIdTest, IsAbsentForLengthsOutOfRange) {
	for (const int bytes : {-1, 0, 33}) {
		EXPECT_EQ(Of(kMachineId, bytes), std::nullopt) << bytes;
	}
}

TEST_F(DeviceIdTest, ContextHoldsTheTextAndLosesItOnFailure) {
	HwidContext context;
	EXPECT_STREQ(context.str, "");
	WriteFile(first_, kMachineId);
	EXPECT_TRUE(FillHwid(context, 32, {first_}));
	EXPECT_STREQ(context.str, kIdentifier);
	EXPECT_TRUE(FillHwid(context, 2, {first_}));
	EXPECT_EQ(std::strlen(context.str), 4U);
	EXPECT_FALSE(FillHwid(context, 16, {second_}));
	EXPECT_STREQ(context.str, "");
}

struct Free {
	void operator()(tarncrypto_hwid* context) const { tarncrypto_hwid_free(context); }
};

TEST(Hwid, IsTheSameEveryTime) {
	if (!tarn::crypto::ReadMachineId(tarn::crypto::MachineIdPaths())) {
		GTEST_SKIP() << "this machine has no machine id";
	}
	const std::unique_ptr<tarncrypto_hwid, Free> one(tarncrypto_hwid_init());
	const std::unique_ptr<tarncrypto_hwid, Free> other(tarncrypto_hwid_init());
	ASSERT_TRUE(one && other);
	EXPECT_STREQ(one->str, "");
	ASSERT_TRUE(tarncrypto_hwid_str(one.get(), 16));
	ASSERT_TRUE(tarncrypto_hwid_str(other.get(), 16));
	EXPECT_STREQ(one->str, other->str);
	EXPECT_THAT(one->str, MatchesRegex("[0-9a-f]{32}"));
	EXPECT_EQ(std::string(one->str), DeviceId(tarn::crypto::MachineIdPaths(), 16));
	EXPECT_FALSE(tarncrypto_hwid_str(one.get(), 0));
	EXPECT_STREQ(one->str, "");
}

TEST(Hwid, ToleratesNull) {
	EXPECT_FALSE(tarncrypto_hwid_str(nullptr, 16));
	tarncrypto_hwid_free(nullptr);
}

} // namespace
