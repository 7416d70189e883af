/** @file What an update of a database would do, found out without changing anything. */
#ifndef HOST_LIBRARY_UPDATE_PLAN_H
#define HOST_LIBRARY_UPDATE_PLAN_H

#include "host/library/budget.h"
#include "host/library/hold.h"
#include "host/library/services.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::ctl {

/** Whether an update finds room. */
enum class Room {
	kUnknown,
	kEnough,    ///< Even if every file changes.
	kPerhaps,   ///< For the packages, and perhaps not for what they hold.
	kTooLittle, ///< Not even for the packages.
};

struct UpdatePlan {
	std::string id;
	int from = -1;                           ///< The recorded version; -1 for none.
	std::optional<std::string> old_place;    ///< Where it is instead of where the settings have it; from is -1 then.
	bool is_unfinished = false;              ///< Whether its files are half replaced.
	std::optional<int> finishes;             ///< The version of a killed replacement that would be finished first.
	Situation found;                         ///< What the packages would be for; after that.
	bool is_needed = false;                  ///< Whether an update would install something.
	std::string reason;                      ///< The end of a sentence: why it would, why not, why by the full package.
	UpdateWay way;                           ///< Of no meaning when no update is needed.
	std::optional<std::uint64_t> most_bytes; ///< About what it takes if all files change and none grows.
	std::optional<std::uint64_t> free_bytes; ///< On volume and file system of the database, without the reserve.
	Room room = Room::kUnknown;
	std::size_t readers = 0;
	bool is_updating = false;
	std::optional<Hold> hold;
	std::string obstacle; ///< Why a scheduled update would leave the database alone; empty when it would not.
};

/** Asks the server for what the library would ask for, and for the size of a full package. */
[[nodiscard]] UpdatePlan MakeUpdatePlan(const Services& services, const std::string& id);

/** Whether there is room for packages and for everything that an update puts beside the installed files. */
[[nodiscard]] Room JudgeRoom(const std::optional<std::uint64_t>& packages,
    const std::optional<std::uint64_t>& most_bytes, const std::optional<std::uint64_t>& free_bytes);

/**
 * The processes that hold a file's lock as readers.
 *
 * @param locks  the system's list of locks
 * @param file   as the list names it: "00:1b:4711"
 */
[[nodiscard]] std::vector<pid_t> ReadersIn(const std::string& locks, const std::string& file);

} // namespace tarn::ctl

#endif
