/** @file Withdrawing versions. */
#ifndef PUBLISHER_RELEASES_WITHDRAW_H
#define PUBLISHER_RELEASES_WITHDRAW_H

#include "publisher/packages/observer.h"
#include "publisher/releases/publish.h"
#include "publisher/repository/publish_options.h"

#include <cstdint>
#include <optional>

namespace tarn::publisher {

struct WithdrawResult {
	PublishResult published; // the new version
	int withdrawn = 0;       // the newest version before, down from which versions are withdrawn
	int restored = 0;        // the version whose content the new version has
	bool is_rebuilt = false; // whether its full package was missing
};

/**
 * Publishes the content of an earlier version as the next version, and withdraws all versions in between: their diff
 * packages give way to empty ones, their full packages are kept where no server finds them. Nothing else is promised
 * differently than by Publish(), also not when the publisher is killed. When the newest version has the content
 * already, nothing is published, and the result is that version, unchanged.
 *
 * @param options  without a tree; an empty URL stands for that of the last publication. A version that is not the next
 *                 has no diff packages
 * @param to       the version whose content comes back; by default the version before the newest. After a withdrawal
 *                 there is no default, so that a command that is given twice does not bring the bad version back
 * @throws UsageError for a value that can never work; PublishError, or the archive's Error, otherwise
 */
WithdrawResult Withdraw(
    const PublishOptions& options, const std::optional<std::int64_t>& to, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
