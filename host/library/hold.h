/**
 * @file
 * A hold on a database: its files do not change, or not beyond a version, until an administrator ends the hold. It is
 * kept beside the record of what is installed.
 */
#ifndef HOST_LIBRARY_HOLD_H
#define HOST_LIBRARY_HOLD_H

#include <optional>
#include <string>

namespace tarn::ctl {

struct Hold {
	bool Allows(int version) const { return up_to && version <= *up_to; }

	std::optional<int> up_to; ///< The highest version that may be installed; none: the database does not change.
	std::string problem;      ///< Why the file cannot be understood, which is treated as a hold without a version.
};

std::string HoldPath(const std::string& id);

/** No value only when there is no such file. */
std::optional<Hold> ReadHold(const std::string& id);

/** Replaces an earlier hold as a whole. Throws Error naming the path. Updates have to be held off meanwhile. */
void SetHold(const std::string& id, const std::optional<int>& up_to);

/** Whether there was one. Throws CommandError naming the path. Updates have to be held off meanwhile. */
[[nodiscard]] bool EndHold(const std::string& id);

/** What people are told of it: "held", "held at most at version 5". */
std::string DescribeHold(const Hold& hold);

/** A sentence about a hold that cannot be understood; empty for any other. */
std::string HoldProblem(const std::string& id, const Hold& hold);

/** Throws CommandError with kHeld when a version must not be installed, or an unreadable hold's problem. */
void RequireNotHeld(const std::string& id, int version);

} // namespace tarn::ctl

#endif
