// A volume that goes away beside a program that looks for a volume.
#include "dataupdate/utils.h"
#include "two_volumes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace tarn::ctl {
namespace {

/** Another program, which adopts a volume as soon as none is in use. */
class Adopting : public dataupdate::ServiceConfig {
public:
	explicit Adopting(std::string adopted)
	    : ServiceConfig(std::make_shared<dataupdate::Config>(std::make_shared<CheckedIO>())),
	      adopted_(std::move(adopted)) {}

	void SetCurVolume(const std::string& volume) const override {
		ServiceConfig::SetCurVolume(volume.empty() ? std::exchange(adopted_, "") : volume);
	}

private:
	mutable std::string adopted_;
};

class MoveTest : public TwoVolumesTest {
protected:
	MoveTest() : TwoVolumesTest(R"({"geo":{"install_dest":"%VOLUME%"}})") {}

	std::string Failure() {
		options_.path = first_;
		try {
			kVolumeUnmountingCommand.run(services_, options_);
		} catch (const CommandError& error) {
			return error.what();
		}
		return "";
	}
	const std::string file_ = "/@database/autoupdate/geo/file";
};

TEST_F(MoveTest, IsNoSuccessBecauseAnotherProgramHasAdoptedAVolume) {
	for (const std::string& adopted : {first_, second_}) {
		test::WriteFile(first_ + file_, "content");
		test::WriteFile(second_ + "/@database/autoupdate/in the way", "");
		services_.config = std::make_shared<Adopting>(adopted);
		services_.config->SetCurVolume(first_);
		EXPECT_THAT(Failure(), testing::HasSubstr("could not be moved")) << adopted;
		EXPECT_EQ(test::ReadFile(first_ + file_), "content");
		EXPECT_EQ(Volume(), "");
	}
}

} // namespace
} // namespace tarn::ctl
