#include "bench/model/results.h"

#include <algorithm>
#include <numeric>

namespace tarn::fleet {

namespace {

Json::Value Number(std::uint64_t number) {
	return {static_cast<Json::UInt64>(number)};
}

template<typename Count>
Json::Value Summed(const std::vector<Count>& minutes, std::size_t begin, std::size_t end, std::size_t step) {
	Json::Value sums(Json::arrayValue);
	for (std::size_t at = begin; at < std::min(end, minutes.size()); at += step) {
		const auto first = minutes.begin() + static_cast<std::ptrdiff_t>(at);
		const auto last = minutes.begin() + static_cast<std::ptrdiff_t>(std::min(at + step, minutes.size()));
		sums.append(Number(std::accumulate(first, last, std::uint64_t{0})));
	}
	return sums;
}

template<typename Count>
std::uint64_t Largest(const std::vector<Count>& counts) {
	return counts.empty() ? 0 : *std::max_element(counts.begin(), counts.end());
}

Json::Value Describe(const Parameters& parameters, const Tally& tally) {
	constexpr std::size_t kMinutesInHour = 60;
	const auto minutes = static_cast<double>(tally.Minutes().size());
	Json::Value result;
	result["requests"] = Number(tally.Requests());
	result["bytes"] = Number(tally.Bytes());
	result["mean_minute"] = static_cast<double>(tally.Requests()) / minutes;
	result["mean_minute_bytes"] = static_cast<double>(tally.Bytes()) / minutes;
	result["busiest_minute"] = Number(Largest(tally.Minutes()));
	result["busiest_minute_bytes"] = Number(Largest(tally.MinuteBytes()));
	result["busiest_second"] = Number(Largest(tally.Seconds()));
	result["hourly"] = Summed(tally.Minutes(), 0, tally.Minutes().size(), kMinutesInHour);
	result["hourly_bytes"] = Summed(tally.MinuteBytes(), 0, tally.Minutes().size(), kMinutesInHour);
	const auto begin = static_cast<std::size_t>(parameters.detail.begin / kMinute);
	const auto end = static_cast<std::size_t>(parameters.detail.end / kMinute);
	result["detail"] = Summed(tally.Minutes(), begin, end, 1);
	return result;
}

/** Seconds from a moment until so many devices had a version, to the end of the minute; null when that never was. */
Json::Value TimeUntil(const std::vector<std::uint32_t>& reached, Moment from, double wanted) {
	std::uint64_t count = 0;
	for (std::size_t minute = 0; minute < reached.size(); ++minute) {
		count += reached[minute];
		if (static_cast<double>(count) >= wanted) {
			return {(static_cast<double>(minute + 1) * kMinute - static_cast<double>(from)) / kSecond};
		}
	}
	return {};
}

std::uint64_t CountFrom(const std::vector<std::uint32_t>& counts, Moment time) {
	const auto minute = static_cast<std::size_t>(std::max<Moment>(time, 0) / kMinute);
	const std::size_t begin = std::min(minute, counts.size());
	return std::accumulate(counts.begin() + static_cast<std::ptrdiff_t>(begin), counts.end(), std::uint64_t{0});
}

/** Of all devices that follow a channel that has offered the version. */
Json::Value DescribeVersion(const Parameters& parameters, const Fleet& fleet, Version version) {
	const Spread& spread = fleet.Spreads()[version];
	std::uint64_t followers = 0;
	Moment offered = kNever;
	for (std::size_t channel = 0; channel < parameters.channels.size(); ++channel) {
		const Moment here = fleet.Published().OfferedAt(channel, version);
		followers += here == kNever ? 0 : fleet.Followers()[channel];
		offered = std::min(offered, here);
	}
	Json::Value result;
	result["version"] = version;
	result["offered"] = static_cast<double>(offered) / kSecond;
	result["followers"] = Number(followers);
	result["installed"] = Number(CountFrom(spread.installed, 0));
	for (const double share : {0.5, 0.9, 0.99}) {
		const std::string name = std::to_string(static_cast<int>(share * 100));
		result["seconds_until"][name] = TimeUntil(spread.reached, offered, share * static_cast<double>(followers));
	}
	constexpr std::size_t kStep = 10;
	constexpr std::size_t kLongest = std::size_t{7} * 1440;
	const auto begin = static_cast<std::size_t>(std::max<Moment>(offered, 0) / kMinute);
	result["reached_each_ten_minutes"] = Summed(spread.reached, begin, begin + kLongest, kStep);
	return result;
}

Json::Value Describe(const Doings& doings) {
	Json::Value result;
	result["runs"] = Number(doings.runs);
	result["unreachable"] = Number(doings.unreachable);
	result["without_document"] = Number(doings.without_document);
	result["failed"] = Number(doings.failed);
	result["fresh_documents"] = Number(doings.fresh_documents);
	result["chains"] = Number(doings.chains);
	result["diffs"] = Number(doings.diffs);
	result["fulls"] = Number(doings.fulls);
	result["missing"] = Number(doings.missing);
	result["chain_bytes"] = Number(doings.chain_bytes);
	result["full_bytes"] = Number(doings.full_bytes);
	return result;
}

/** How many devices took a withdrawn version before the withdrawal, and after it. */
Json::Value Describe(const Fleet& fleet, const Withdrawal& withdrawal) {
	std::uint64_t after = 0;
	std::uint64_t all = 0;
	for (Version version = withdrawal.first; version <= withdrawal.last; ++version) {
		after += CountFrom(fleet.Spreads()[version].installed, withdrawal.at + kMinute - 1);
		all += CountFrom(fleet.Spreads()[version].installed, 0);
	}
	Json::Value result;
	result["at"] = static_cast<double>(withdrawal.at) / kSecond;
	result["took_before"] = Number(all - after);
	result["took_after"] = Number(after);
	return result;
}

Json::Value DescribeGroups(const Parameters& parameters, const Fleet& fleet) {
	Json::Value list(Json::arrayValue);
	const std::vector<Group> groups = fleet.Groups();
	for (std::size_t number = 0; number < groups.size(); ++number) {
		Json::Value group;
		group["habit"] = parameters.habits[number].name;
		group["devices"] = Number(groups[number].devices);
		group["runs"] = Number(groups[number].runs);
		group["never"] = Number(groups[number].never);
		group["week_long"] = Number(groups[number].week_long);
		list.append(group);
	}
	return list;
}

} // namespace

Json::Value ResultsOf(const Parameters& parameters, const Fleet& fleet) {
	Json::Value result;
	result["devices"] = parameters.devices;
	result["seconds"] = static_cast<double>(parameters.length) / kSecond;
	result["origin"] = Describe(parameters, fleet.AtOrigin());
	result["caches"] = Describe(parameters, fleet.AtCaches());
	if (parameters.caches.shield) {
		result["shield"] = Describe(parameters, fleet.AtShield());
	}
	result["doings"] = Describe(fleet.Done());
	result["groups"] = DescribeGroups(parameters, fleet);
	result["versions"] = Json::Value(Json::arrayValue);
	for (Version version = 1; version <= fleet.Published().LastVersion(); ++version) {
		result["versions"].append(DescribeVersion(parameters, fleet, version));
	}
	result["withdrawals"] = Json::Value(Json::arrayValue);
	for (const Withdrawal& withdrawal : fleet.Published().Withdrawals()) {
		result["withdrawals"].append(Describe(fleet, withdrawal));
	}
	return result;
}

} // namespace tarn::fleet
