/** @file The real library over two directories that are listed as volumes, and a command's run on them. */
#ifndef TESTS_UNIT_TWO_VOLUMES_H
#define TESTS_UNIT_TWO_VOLUMES_H

#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace tarn::ctl {

class TwoVolumesTest : public test::FixedPathsTest {
protected:
	/** @param databases  the content of databases.conf */
	explicit TwoVolumesTest(std::string databases) : databases_(std::move(databases)) {}

	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		test::WriteFile("/usr/share/data_update/databases.conf", databases_);
		for (const std::string& volume : {first_, second_}) {
			std::filesystem::create_directories(volume);
		}
		ListVolumes({first_, second_});
		UseVolume("");
	}
	static void ListVolumes(const std::vector<std::string>& volumes) {
		std::string lines = "pattern /nothing*\n";
		for (const std::string& volume : volumes) {
			lines += "directory " + volume + "\n";
		}
		test::WriteFile("/usr/tarn/etc/volumes.conf", lines);
	}
	static void UseVolume(const std::string& volume) {
		test::WriteFile("/usr/share/data_update/data_update.conf", R"({"config":{"cur_volume":")" + volume + R"("}})");
	}
	/** What a command that succeeds says. */
	std::string Run(ExitCode (*command)(const Services&, const Options&), const std::string& path = "") {
		out_.str("");
		options_.path = path;
		EXPECT_EQ(command(services_, options_), kDone);
		return out_.str();
	}
	std::string Volume() const { return services_.config->GetCurVolume(); }

	test::TemporaryDirectory directory_;
	const std::string first_ = directory_ / "volume1";
	const std::string second_ = directory_ / "volume2";
	Options options_;
	std::ostringstream out_;
	std::ostringstream err_;
	Terminal terminal_{out_, err_, false};
	Services services_ = MakeServices(terminal_);

private:
	std::string databases_;
};

} // namespace tarn::ctl

#endif
