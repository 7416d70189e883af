#include "host/library/budget.h"

#include "base/text.h"
#include "dataupdate/messages.h"
#include "dataupdate/update_error.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

namespace tarn::ctl {

namespace {

constexpr char kAlways[] = "always";
constexpr char kDiffsOnly[] = "diffs only";
constexpr char kSetting[] = "the setting \"scheduled_full_packages\"";

UpdateWay Full(const std::string& reason) {
	return {false, reason, 1, std::nullopt};
}

/** No value when a package announces no size. */
std::optional<std::uint64_t> Sum(const Situation& situation, const Diffs& diffs) {
	std::uint64_t bytes = 0;
	for (int version = situation.installed; version < situation.offered;) {
		const int size = diffs.at(++version).file_size;
		if (size <= 0) {
			return std::nullopt;
		}
		bytes += static_cast<std::uint64_t>(size);
	}
	return bytes;
}

[[noreturn]] void Refuse(const std::string& reason) {
	throw Refusal(kBeyondBudget, reason);
}

std::string Allowance(const Budget& budget, std::uint64_t bytes) {
	return budget.source + " allows " + HumanSize(bytes);
}

} // namespace

int EndOfChain(int from, int to, const Diffs& diffs) {
	while (from < to && diffs.count(from + 1) > 0) {
		++from;
	}
	return from;
}

UpdateWay FindWay(const Situation& situation, const Diffs& diffs) {
	if (situation.is_unfinished) {
		return Full("the last replacement of its files was not finished");
	}
	if (situation.installed < 0) {
		return Full("nothing is installed");
	}
	const int end = EndOfChain(situation.installed, situation.offered, diffs);
	if (end < situation.offered) {
		return Full(
		    "the server has no diff package from version " + std::to_string(end) + " to " + std::to_string(end + 1));
	}
	return {true, "", static_cast<std::size_t>(situation.offered - situation.installed), Sum(situation, diffs)};
}

std::optional<std::uint64_t> ParseBytes(const std::string& text) {
	static const std::map<std::string, std::uint64_t> kUnits = {
	    {"", 1}, {"k", 1000}, {"K", 1000}, {"M", 1000000}, {"G", 1000000000}};
	const char* const end = text.data() + text.size();
	std::uint64_t number = 0;
	const auto result = std::from_chars(text.data(), end, number);
	const auto unit = kUnits.find(std::string(result.ptr, end));
	const bool is_number = result.ec == std::errc() && unit != kUnits.end();
	const bool fits = is_number && number <= std::numeric_limits<std::uint64_t>::max() / unit->second;
	return fits ? std::optional(number * unit->second) : std::nullopt;
}

Budget BudgetOf(std::uint64_t most_bytes) {
	return {most_bytes, std::nullopt, "--max-bytes"};
}

bool IsFullPackageRule(const std::string& text) {
	return text == kAlways || text == kDiffsOnly || ParseBytes(text);
}

Budget ScheduledBudget(const std::function<std::string()>& read_setting) {
	std::string rule = kAlways;
	try {
		rule = read_setting();
	} catch (const dataupdate::UpdateError& error) {
		if (!StartsWith(error.what(), dataupdate::messages::kMissingSetting)) {
			throw;
		} // Defaults from before the setting lack it.
	}
	if (!IsFullPackageRule(rule)) {
		throw CommandError(kFailed, std::string(kSetting) + " has no meaning; nothing was updated");
	}
	if (rule == kAlways) {
		return {};
	}
	return {std::nullopt, rule == kDiffsOnly ? 0 : ParseBytes(rule), kSetting};
}

std::optional<std::uint64_t> MostOfFullPackage(const Budget& budget, std::uint64_t spent) {
	std::optional<std::uint64_t> most = budget.most_full_bytes;
	if (budget.most_bytes) {
		const std::uint64_t left = *budget.most_bytes - std::min(spent, *budget.most_bytes);
		most = std::min(left, most.value_or(left));
	}
	return most;
}

void RequireChainWithin(const Budget& budget, const UpdateWay& way) {
	if (!budget.most_bytes) {
		return;
	}
	if (!way.bytes) {
		Refuse("the server does not tell the size of its diff packages, and " + Allowance(budget, *budget.most_bytes));
	}
	if (*way.bytes > *budget.most_bytes) {
		Refuse("its diff packages have " + HumanSize(*way.bytes) + ", and " + Allowance(budget, *budget.most_bytes));
	}
}

void RequireFullPackageWithin(
    const Budget& budget, std::uint64_t spent, const std::function<std::optional<std::uint64_t>()>& ask) {
	const std::optional<std::uint64_t> most = MostOfFullPackage(budget, spent);
	if (!most) {
		return;
	}
	if (*most == 0) {
		Refuse("it needs the full package, and " + budget.source + " allows none" +
		       (spent > 0 ? " after " + HumanSize(spent) + " of diff packages" : ""));
	}
	const std::optional<std::uint64_t> size = ask();
	if (!size) {
		Refuse("it needs the full package, whose size the server does not tell, and " + Allowance(budget, *most));
	}
	if (*size > *most) {
		Refuse("it needs the full package, which has " + HumanSize(*size) + ", and " + Allowance(budget, *most));
	}
}

} // namespace tarn::ctl
