/**
 * @file
 * What a replacement is going to put where, so that another process can finish it when this one is killed.
 *
 * The plan lies beside the mark of an unfinished replacement. It is believed as long as the system has not been
 * restarted since, because what was prepared need not have come to the disk, and only where every file that it names is
 * the very file that was prepared: either still in the temporary area or in its place already.
 */
#ifndef DATAUPDATE_INTERNAL_REPLACEMENT_PLAN_H
#define DATAUPDATE_INTERNAL_REPLACEMENT_PLAN_H

#include "base/file_io.h"
#include "dataupdate/file_list.h"

#include <optional>
#include <string>
#include <string_view>

namespace tarn::dataupdate {

/** What a plan says of the replacement as a whole. */
struct PlannedVersion {
	int data_version = -1;         ///< Of what gets installed.
	int last_fetch_time = 0;       ///< Likewise.
	bool is_full = false;          ///< Whether nothing else stays in the install directory.
	std::string volume;            ///< Where the temporary area is.
	std::string install_directory; ///< What the files' names are relative to.
};

/** A plan that was read. */
struct ReplacementPlan {
	PlannedVersion version;
	/** IdentityOf() each prepared file by its name; without one the file is to be deleted. */
	FileList files;
	/** Where each of these files is ready. */
	FileList sources;
};

/**
 * Tells a regular file from every other one that was or will be at any path while the system runs, as long as nobody
 * writes to it. Empty for what is no regular file.
 */
[[nodiscard]] std::string IdentityOf(const std::string& path);

/**
 * Writes a plan whole or not at all, without bringing it to the disk: it is of no use after a restart. All functions
 * throw std::exception.
 */
class PlanWriter {
public:
	PlanWriter(const std::string& id, const PlannedVersion& version);

	/** Adds a file that is ready, in the order of the names; none that is no regular file. */
	void AddFile(std::string_view name, const std::string& source);
	/** Adds a file that is to be deleted, likewise. */
	void AddDeletion(std::string_view name, const std::string& source);
	/** Puts the plan into its place, instead of one that is there. */
	void Finish();

private:
	void _Add(std::string_view field);
	void _Flush();

	std::string path_;
	Draft draft_;
	std::string text_;
};

/** The plan; none where there is none that was written since the system started. Throws nothing but std::bad_alloc. */
[[nodiscard]] std::optional<ReplacementPlan> ReadPlan(const std::string& id);

/** The version of a plan that may be of no use any more; none where no plan can be read. Throws likewise. */
[[nodiscard]] std::optional<int> ReadPlannedVersion(const std::string& id);

/** Removes it; a failure other than that there is none is logged at LOG_ERR. */
void RemovePlan(const std::string& id) noexcept;

/** Does what SetReplacementMark() does, and keeps the plan, which another one's mark would not belong to. */
void SetMarkOverPlan(const std::string& id);

} // namespace tarn::dataupdate

#endif
