/** @file The diff packages of a withdrawal. */
#ifndef PUBLISHER_RELEASES_WITHDRAWAL_DIFFS_H
#define PUBLISHER_RELEASES_WITHDRAWAL_DIFFS_H

#include "publisher/common/files.h"
#include "publisher/diff/diff_maker.h"
#include "publisher/packages/observer.h"
#include "publisher/releases/withdrawal_versions.h"
#include "publisher/repository/publish_options.h"

#include <map>
#include <string>
#include <vector>

namespace tarn::publisher {

/** What a withdrawal publishes, and in which repository. */
struct WithdrawalOrder {
	const Repository& repository;
	const PublishOptions& options;
	const archive::SigningKey& key;
	const PackageReader& reader;
	const DiffChain& chain; // as devices have followed it so far
	const WithdrawalVersions& versions;
	const WorkDirectory& work;
	int target = 0;   // the version whose content comes back
	int newest = 0;   // the newest version so far; the withdrawal is the next
	const Tree& tree; // the content that comes back
	std::string format_version;
	std::uint64_t full_size = 0; // of the withdrawal's full package
	int published = 0;           // when, in seconds since 1970
};

/**
 * The diff packages that take devices past withdrawn versions.
 *
 * Each link of the chain to a withdrawn version becomes an empty package, so that devices which have none of these
 * versions never download one. The last link then finds either the content of the version that comes back or that of
 * any withdrawn version. So it names every file that any replaced link has named, as a whole file or as deleted:
 * whatever a device had before, it has the same files after it.
 *
 * The packages lie under temporary names until Commit().
 */
class WithdrawalDiffs {
public:
	explicit WithdrawalDiffs(const WithdrawalOrder& order) : order_(order) {}

	/**
	 * Writes the packages, and applies them as devices do: to the version that comes back, and to each withdrawn
	 * version of which there is a full package. The newest must be among them.
	 *
	 * @throws PublishError saying why there are none
	 */
	void Make(const PublishObserver& observer);
	/** Puts the packages in place, the last link first, before restore could read an empty one without it. */
	void Commit();

	/** What changes by the last link for devices that have the newest version. */
	const DiffResult& Result() const { return result_; }
	/** What the document says of the packages, with those of the chain that stay. */
	std::map<int, DiffFile> Files(const std::map<int, DiffFile>& previous) const;

private:
	void FindChanges();
	void AddCompanions(std::set<std::string>& names) const;
	std::vector<std::string> Emptied() const;
	void WriteLast();
	void WriteEmpty(int version);
	std::uint64_t Write(int version, const Tree& content, Json::Value more, ReplacingFile& file) const;
	int OldestStart() const;
	void Prove(int start) const;
	int Version() const { return order_.newest + 1; }

	struct Package {
		std::string name; // relative to the repository
		ReplacingFile file;
		std::uint64_t size = 0;
	};

	const WithdrawalOrder& order_;
	std::vector<TreeChange> changes_; // from the newest version, or none where only other devices have a difference
	std::vector<DiffMember> members_;
	Tree newest_;
	DiffResult result_;
	std::map<int, Package> packages_; // by version
};

} // namespace tarn::publisher

#endif
