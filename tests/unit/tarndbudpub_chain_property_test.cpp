// Random edits over a chain, followed by devices that entered at every version by either way.
#include "diff_fixture.h"
#include "publisher/sqlite/sqlite_content.h"
#include "random_tree.h"

#include <gtest/gtest.h>

#include <random>

namespace tarn::test {

namespace {

class ChainProperty : public DiffPublisherTest, public ::testing::WithParamInterface<unsigned> {
protected:
	static constexpr int kVersions = 8;

	/** Compares a device with a version: the bytes, or the content where scripts have changed a file. */
	void ExpectVersion(
	    const DeviceTree& device, int version, const std::set<std::string>& scripted, const std::string& how) {
		DeviceTree expected(PublicKey());
		expected.Install(Package(version));
		std::map<std::string, std::string> want = expected.Files();
		std::map<std::string, std::string> have = device.Files();
		for (const std::string& name : scripted) {
			EXPECT_EQ(publisher::FindContentDifference(device.Path(name), expected.Path(name)), std::nullopt)
			    << name << how;
			want.erase(name);
			have.erase(name);
		}
		EXPECT_EQ(have, want) << how;
		EXPECT_EQ(device.Directories(), expected.Directories()) << how;
	}
	std::set<std::string> ScriptedAfter(int version) const {
		std::set<std::string> names;
		const Json::Value metadata = MetadataOf(version);
		for (const Json::Value& name : metadata["scripted_files"]) {
			names.insert(name.asString());
		}
		return names;
	}
};

TEST_P(ChainProperty, LeadsEveryDeviceToThePublishedContent) {
	std::mt19937 random(GetParam());
	RandomTree tree(options_.tree, GetParam());
	Publish();
	for (int version = 2; version <= kVersions; ++version) {
		tree.Edit();
		Publish();
	}
	ASSERT_EQ(OfferedDiffs().size(), kVersions - 1U) << warnings_.back();
	for (int from = 1; from < kVersions; ++from) {
		DeviceTree device(PublicKey());
		device.Install(Package(from));
		for (int at = from; at < kVersions;) {
			std::vector<std::string> packages;
			for (int steps = 1 + static_cast<int>(random() % 3); steps > 0 && at < kVersions; --steps) {
				packages.push_back(Diff(++at));
			}
			device.Update(packages);
			ExpectVersion(device, at, ScriptedAfter(at), " from " + std::to_string(from) + " at " + std::to_string(at));
		}
	}
}

/** Devices have other bytes after a script, which no patch fits. */
TEST_P(ChainProperty, NeverPatchesAfterAScript) {
	RandomTree tree(options_.tree, GetParam() + 1000);
	Publish();
	std::map<std::string, std::string> last;
	for (int version = 2; version <= kVersions; ++version) {
		tree.Edit();
		ASSERT_TRUE(Publish().diff) << warnings_.back();
		for (const auto& [name, kind] : KindsIn(version)) {
			EXPECT_FALSE(last[name] == "sql" && kind == "vcdiff") << name << " at " << version;
			last[name] = kind;
		}
	}
}

INSTANTIATE_TEST_SUITE_P(Seeds, ChainProperty, ::testing::Range(1U, 4U));

} // namespace

} // namespace tarn::test
