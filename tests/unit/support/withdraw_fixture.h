/** @file A database of which versions are withdrawn, and devices that follow its document. */
#ifndef TESTS_UNIT_SUPPORT_WITHDRAW_FIXTURE_H
#define TESTS_UNIT_SUPPORT_WITHDRAW_FIXTURE_H

#include "diff_fixture.h"
#include "publisher/releases/withdraw.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::test {

/** A device that knows which version it has. */
struct Follower {
	explicit Follower(const std::string& public_key) : tree(public_key) {}

	DeviceTree tree;
	int version = 0;
	int full_packages = 0; // that it has installed
};

class WithdrawTest : public DiffPublisherTest {
protected:
	publisher::WithdrawResult Withdraw(const std::optional<std::int64_t>& to = std::nullopt);
	/** The text of what Withdraw() throws; empty when it succeeds. */
	std::string WithdrawError(const std::optional<std::int64_t>& to = std::nullopt);

	int Newest() const;
	/** The paths of the packages that a device of a version takes: the chain, or the full package. */
	std::vector<std::string> PackagesFrom(int version) const;
	/** Brings a device to the newest version as the document says. */
	void Update(Follower& device) const;
	/** Requires what the newest full package holds; by content where scripts have left other bytes. */
	void ExpectNewest(const Follower& device) const;
	/** The files that a diff package of the document names. */
	std::set<std::string> NamedBy(int version) const;

private:
	std::string OfferedDiff(int version) const;
};

} // namespace tarn::test

#endif
