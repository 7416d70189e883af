#include "dataupdate/update_error.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace tarn::dataupdate {
namespace {

TEST(UpdateErrorTest, HasTheOrdinaryCodeUnlessGivenAnother) {
	EXPECT_EQ(UpdateError(std::string("text")).code(), 0);
	EXPECT_EQ(UpdateError("text").code(), 0);
	EXPECT_EQ(UpdateError("text", UpdateError::ErrorCode(1)).code(), 1);
}

TEST(UpdateErrorTest, TellsExactlyTheMessageThatItWasGiven) {
	EXPECT_STREQ(UpdateError(std::string("Fail to read: /a b")).what(), "Fail to read: /a b");
	EXPECT_STREQ(UpdateError("").what(), "");
	EXPECT_STREQ(UpdateError("coded", UpdateError::kFileNotExist).what(), "coded");
}

TEST(UpdateErrorTest, CopiesKeepMessageAndCode) {
	const UpdateError original("gone", UpdateError::kFileNotExist);
	const std::vector<UpdateError> copies(2, original);
	UpdateError assigned("other");
	assigned = original;
	EXPECT_STREQ(copies.back().what(), "gone");
	EXPECT_EQ(copies.back().code(), 1);
	EXPECT_STREQ(assigned.what(), "gone");
	EXPECT_EQ(assigned.code(), 1);
}

TEST(UpdateErrorTest, IsCaughtAsAStandardException) {
	try {
		throw UpdateError("text", UpdateError::kFileNotExist);
	} catch (const std::exception& error) {
		EXPECT_STREQ(error.what(), "text");
		EXPECT_EQ(dynamic_cast<const UpdateError&>(error).code(), 1);
	}
}

TEST(UpdateErrorTest, RefusesANullMessage) {
	const char* const nothing = nullptr;
	EXPECT_THROW(const UpdateError error(nothing), std::logic_error);
}

TEST(UpdateErrorTest, CarriesTheCodeAsASignedNumberOf32Bits) {
	EXPECT_TRUE((std::is_same_v<std::underlying_type_t<UpdateError::ErrorCode>, int>));
	EXPECT_EQ(sizeof(UpdateError::ErrorCode), 4U);
}

} // namespace
} // namespace tarn::dataupdate
