// Random histories with withdrawn versions, and devices of every version that follow them.
#include "random_tree.h"
#include "withdraw_fixture.h"

#include <memory>

namespace tarn::test {

namespace {

class WithdrawProperty : public WithdrawTest, public ::testing::WithParamInterface<unsigned> {
protected:
	WithdrawProperty() : random_(GetParam()) {
		Put("bulk", Noise(150'000, 1)); // so that few withdrawals cost as much as a full package
	}

	int Below(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }
	/** Two devices begin with every version: a device that updates now and then, and a device that waits. */
	void BeginDevices() {
		for (int i = 0; i < 2; ++i) {
			devices_.push_back(std::make_unique<Follower>(PublicKey()));
			devices_.back()->tree.Install(Package(Newest()));
			devices_.back()->version = Newest();
		}
	}
	void UpdateSome() {
		for (std::size_t at = 0; at < devices_.size(); at += 2) {
			if (Below(2) == 0) {
				Update(*devices_[at]);
				ExpectNewest(*devices_[at]);
			}
		}
	}
	/** Withdraws the newest version, or several, or a withdrawal. */
	void WithdrawSome() {
		const int newest = Newest();
		const int target = std::max(1, newest - 1 - Below(3));
		const auto result = Withdraw(target);
		withdrawals_ += result.published.diff ? 1 : 0;
		for (int version = target + 1; result.published.diff && version <= newest; ++version) {
			if (result.published.diff->oldest_base < version) {
				EXPECT_THAT(NamedBy(version), IsEmpty()) << version << " of " << Newest();
			}
		}
		DeviceTree good(PublicKey());
		good.Install(fs::exists(Package(target)) ? Package(target) : Withdrawn(target));
		DeviceTree now(PublicKey());
		now.Install(Package(Newest()));
		EXPECT_EQ(now.Files(), good.Files());
	}
	std::string Withdrawn(int version) const {
		return options_.repository + "/packages/db/.withdrawn/db_v" + std::to_string(version) + ".tarn";
	}

	std::mt19937 random_;
	std::vector<std::unique_ptr<Follower>> devices_;
	int withdrawals_ = 0; // with diff packages
};

TEST_P(WithdrawProperty, LeadsEveryDeviceToThePublishedContent) {
	constexpr int kVersions = 14;
	RandomTree tree(options_.tree, GetParam());
	Publish();
	BeginDevices();
	while (Newest() < kVersions) {
		if (Newest() > 1 && Below(5) < 2) {
			WithdrawSome();
		} else {
			tree.Edit();
			Publish();
		}
		BeginDevices();
		UpdateSome();
	}
	int by_chain = 0;
	for (const auto& device : devices_) {
		by_chain += PackagesFrom(device->version).size() > 1 ? 1 : 0;
		Update(*device);
		ExpectNewest(*device);
	}
	EXPECT_GT(by_chain, 3);
	EXPECT_GT(withdrawals_, 1) << ::testing::PrintToString(warnings_);
}

INSTANTIATE_TEST_SUITE_P(Seeds, WithdrawProperty, ::testing::Range(1U, 5U));

} // namespace

} // namespace tarn::test
