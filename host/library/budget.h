/** @file By which packages an update would come, and how much it may download. */
#ifndef HOST_LIBRARY_BUDGET_H
#define HOST_LIBRARY_BUDGET_H

#include "dataupdate/records.h"
#include "host/library/failure.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tarn::ctl {

using Diffs = std::map<int, dataupdate::DiffInfo>;

/** What is known of a database when an update of it begins. */
struct Situation {
	int installed = -1;         ///< The recorded version; -1 for none.
	bool is_unfinished = false; ///< Its files are half replaced, so that no diff package fits them.
	int offered = -1;
};

struct UpdateWay {
	bool is_chain = false; ///< Whether diff packages lead to the offered version; else the full one.
	std::string reason;    ///< The end of a sentence: why it is the full package, empty for a chain.
	std::size_t packages = 1;
	std::optional<std::uint64_t> bytes; ///< What the document announces for a chain; none for the full package.
};

/** The version up to which diff packages lead from one on the way to another. */
[[nodiscard]] int EndOfChain(int from, int to, const Diffs& diffs);

/** How the library will go about it, unless a package turns out to be unusable. */
[[nodiscard]] UpdateWay FindWay(const Situation& situation, const Diffs& diffs);

/** A limit that is not set limits nothing. */
struct Budget {
	std::optional<std::uint64_t> most_bytes;      ///< Of all packages of one update.
	std::optional<std::uint64_t> most_full_bytes; ///< Of a full package; 0: no full package.
	std::string source;                           ///< Who set the limit: "--max-bytes".
};

/** Ends an operation that must not be carried out, before anything has changed; a result of its own, no failure. */
class Refusal : public CommandError {
public:
	using CommandError::CommandError;
};

/** "1500", "1500k", "20M", "3G": decimal units. No value for anything else, and for what 64 bits do not hold. */
[[nodiscard]] std::optional<std::uint64_t> ParseBytes(const std::string& text);

/** --max-bytes. */
[[nodiscard]] Budget BudgetOf(std::uint64_t most_bytes);

/** Whether a text is a value of the setting for scheduled updates. */
[[nodiscard]] bool IsFullPackageRule(const std::string& text);

/** What the setting for scheduled updates says; a missing one limits nothing. Throws CommandError for a wrong one. */
[[nodiscard]] Budget ScheduledBudget(const std::function<std::string()>& read_setting);

/** The bytes that a full package may have after so many have been downloaded; no value for any number. */
[[nodiscard]] std::optional<std::uint64_t> MostOfFullPackage(const Budget& budget, std::uint64_t spent);

/** Throws Refusal when a chain announces more than may be downloaded, or does not announce its size. */
void RequireChainWithin(const Budget& budget, const UpdateWay& way);

/**
 * Throws Refusal when the full package may not be downloaded.
 *
 * @param spent  what this update has downloaded already
 * @param ask    asks the server for the package's size; called only if that matters
 */
void RequireFullPackageWithin(
    const Budget& budget, std::uint64_t spent, const std::function<std::optional<std::uint64_t>()>& ask);

} // namespace tarn::ctl

#endif
