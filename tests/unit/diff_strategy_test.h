/** @file A diff update of a database "geo" over a platform that a test programs. */
#ifndef TESTS_UNIT_DIFF_STRATEGY_TEST_H
#define TESTS_UNIT_DIFF_STRATEGY_TEST_H

#include "dataupdate/strategy.h"
#include "fake_packages.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "private_root.h"

#include <map>
#include <optional>
#include <string>

namespace tarn::dataupdate {

constexpr char kUsingLock[] = "/run/data_update/using_geo.lock";
constexpr char kMark[] = "/var/lib/data_update/geo/replacing";

/** A package that appends a text to the file "f". */
inline test::FakePackages::Files Appending(const std::string& text) {
	return {{"patch_infos.json", R"({"f": {"operation": "update", "input_file": "p.vcdiff"}})"}, {"p.vcdiff", text}};
}

/** Versions 6 to 8 of a database of which 5 is installed. */
class DiffStrategyTest : public test::FixedPathsTest {
protected:
	DiffStrategyTest() {
		for (const int version : {6, 7, 8}) {
			diffs_.emplace(version, DiffInfo("http://h/" + std::to_string(version), 1));
			packages_.by_link["http://h/" + std::to_string(version)] = Appending(std::to_string(version));
		}
		WriteFile(Installed("f"), "5");
		WriteFile(Installed("other"), "old");
	}

	std::string Area() const { return directory_ / "volume/@tmp/data_update"; }
	std::string Temp(const std::string& name) const { return Area() + "/geo_" + name; }
	std::string Installed(const std::string& name) const { return directory_ / ("volume/db/geo/" + name); }
	/** The one and only package leads to version 6 and does this. */
	void Offer(const std::string& description, const test::FakePackages::Files& files = {}) {
		remote_ = 6;
		packages_.by_link["http://h/6"] = files;
		packages_.by_link["http://h/6"]["patch_infos.json"] = description;
	}
	std::optional<DiffStrategy>& Make(int installed = 5) {
		DatabaseStatus status;
		status.data_version = installed;
		strategy_.emplace("geo", status, RemoteInfo(remote_, 1, false, "http://h/full"), diffs_, directory_ / "volume",
		    directory_ / "volume/db/geo", directory_ / "");
		return strategy_;
	}
	DiffStrategy& Prepared() {
		Make()->PrepareUpdate();
		return *strategy_;
	}
	std::string PrepareFailure(int installed = 5) {
		std::string message = MessageOf([&] { Make(installed)->PrepareUpdate(); });
		strategy_.reset();
		return message;
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakePackages packages_{platform_};
	test::FakeSystem system_;
	std::map<int, DiffInfo> diffs_;
	int remote_ = 8;
	std::optional<DiffStrategy> strategy_;
};

} // namespace tarn::dataupdate

#endif
