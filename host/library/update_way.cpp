#include "host/library/update_way.h"

namespace tarn::ctl {

namespace {

UpdateWay Full(const std::string& reason) {
	UpdateWay way;
	way.reason = reason;
	return way;
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

} // namespace

UpdateWay FindWay(const Situation& situation, const Diffs& diffs) {
	if (situation.is_unfinished) {
		return Full("the last replacement of its files was not finished");
	}
	if (situation.installed < 0) {
		return Full("nothing is installed");
	}
	for (int version = situation.installed; version < situation.offered; ++version) {
		if (diffs.count(version + 1) == 0) {
			return Full("the server has no diff package from version " + std::to_string(version) + " to " +
			            std::to_string(version + 1));
		}
	}
	UpdateWay way;
	way.is_chain = true;
	way.packages = static_cast<std::size_t>(situation.offered - situation.installed);
	way.bytes = Sum(situation, diffs);
	return way;
}

} // namespace tarn::ctl
