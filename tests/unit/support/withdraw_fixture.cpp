#include "withdraw_fixture.h"

#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/sqlite/sqlite_content.h"

namespace tarn::test {

publisher::WithdrawResult WithdrawTest::Withdraw(const std::optional<std::int64_t>& to) {
	return publisher::Withdraw(options_, to, observer_);
}

std::string WithdrawTest::WithdrawError(const std::optional<std::int64_t>& to) {
	try {
		Withdraw(to);
		return "";
	} catch (const std::exception& error) {
		return error.what();
	}
}

int WithdrawTest::Newest() const {
	return std::stoi(Document()["db_list"]["db"]["data_version"].asString());
}

std::string WithdrawTest::OfferedDiff(int version) const {
	const std::string link =
	    Document()["db_list"]["db"]["diff_files"][std::to_string(version)]["download_link"].asString();
	return link.empty() ? "" : options_.repository + link.substr(options_.url.size());
}

std::vector<std::string> WithdrawTest::PackagesFrom(int version) const {
	std::vector<std::string> packages;
	for (int at = version + 1; at <= Newest(); ++at) {
		packages.push_back(OfferedDiff(at));
		if (packages.back().empty()) {
			const std::string link = Document()["db_list"]["db"]["download_link"].asString();
			return {options_.repository + link.substr(options_.url.size())};
		}
	}
	return packages;
}

void WithdrawTest::Update(Follower& device) const {
	const std::vector<std::string> packages = PackagesFrom(device.version);
	if (packages == std::vector<std::string>{Package(Newest())}) {
		device.tree.Install(packages.front());
		++device.full_packages;
	} else {
		device.tree.Update(packages);
	}
	device.version = Newest();
}

void WithdrawTest::ExpectNewest(const Follower& device) const {
	DeviceTree expected(PublicKey());
	expected.Install(Package(Newest()));
	std::map<std::string, std::string> want = expected.Files();
	std::map<std::string, std::string> have = device.tree.Files();
	const std::string diff = OfferedDiff(Newest());
	const Json::Value scripted =
	    diff.empty() ? Json::Value() : publisher::ReadMetadata(archive::ArchiveFile(diff))["scripted_files"];
	for (const Json::Value& name : scripted) {
		EXPECT_EQ(publisher::FindContentDifference(device.tree.Path(name.asString()), expected.Path(name.asString())),
		    std::nullopt)
		    << name;
		want.erase(name.asString());
		have.erase(name.asString());
	}
	EXPECT_EQ(have, want) << "at version " << device.version;
	EXPECT_EQ(device.tree.Directories(), expected.Directories());
}

std::set<std::string> WithdrawTest::NamedBy(int version) const {
	std::set<std::string> names;
	for (const publisher::DiffMember& member :
	    publisher::ReadDiffPackage(archive::ArchiveFile(OfferedDiff(version))).members) {
		names.insert(member.name);
	}
	return names;
}

} // namespace tarn::test
