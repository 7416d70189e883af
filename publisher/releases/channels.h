/** @file Channels: documents of one repository that share the packages of one format. */
#ifndef PUBLISHER_RELEASES_CHANNELS_H
#define PUBLISHER_RELEASES_CHANNELS_H

#include "publisher/packages/observer.h"
#include "publisher/packages/package.h"
#include "publisher/repository/document.h"
#include "publisher/repository/publish_options.h"
#include "publisher/repository/repository.h"

#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/**
 * The entry that the next version continues: that of its own document, unless another channel has published since. Then
 * the chain goes on from there, since packages are shared and a version has one diff package for all channels.
 *
 * @param version  the next version
 * @return no value when the document does not name the database and no channel has the version before
 */
[[nodiscard]] std::optional<Entry> EntryToContinue(
    const Repository& repository, const PublishOptions& options, int version);

/** Warns when a document that is about to name a database is new beside others: see NewDocumentWarning(). */
void WarnOfNewDocument(
    const Repository& repository, const std::string& name, const std::string& id, const PublishObserver& observer);

/** Removes the diff packages of a database that no document names any more. A failure is a warning. */
void RemoveOldDiffs(const Repository& repository, const std::string& id, const PublishObserver& observer);

struct PromoteOptions {
	std::string repository;
	std::string id;
	std::string from; // the document that names the version already
	std::string to = "1";
	std::vector<std::string> keys; // public keys, one of which must have signed a package
};

struct PromoteResult {
	int data_version = 0;
	std::optional<int> before; // what the target named
	bool is_changed = false;   // false when the target names the version already
	bool has_chain = false;    // whether devices of the target come to it by diff packages
};

/**
 * Makes a document name the version of a database that another one names. Devices of the target must find all diff
 * packages from their version on, or a full package; each is checked as a device would check it.
 *
 * @param observer  gets a warning when only one of the two ways is whole
 * @throws UsageError for a value that can never work, PublishError when devices would find no way, or could not read it
 */
PromoteResult Promote(const PromoteOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
