#include "bench/model/catalogue.h"

#include <algorithm>
#include <set>
#include <stdexcept>

namespace tarn::fleet {

std::vector<PackageNumber> Edition::ChainFrom(Version installed) const {
	if (installed == kNothing || diffs.empty() || installed + 1 < oldest_diff || installed >= newest) {
		return {};
	}
	return {diffs.begin() + (installed + 1 - oldest_diff), diffs.end()};
}

Catalogue::Catalogue(const Parameters& parameters) : parameters_(parameters), channels_(parameters.channels.size()) {
	std::vector<Publication> sorted = parameters.publications;
	std::stable_sort(
	    sorted.begin(), sorted.end(), [](const Publication& a, const Publication& b) { return a.at < b.at; });
	for (const Publication& what : sorted) {
		switch (what.change) {
		case Change::kPublish:
			Publish(what);
			break;
		case Change::kPromote:
			Promote(what);
			break;
		case Change::kWithdraw:
			Withdraw(what);
			break;
		}
		RemoveUnnamed(what.at);
	}
}

std::size_t Catalogue::ChannelNumber(const std::string& name) const {
	for (std::size_t number = 0; number < parameters_.channels.size(); ++number) {
		if (parameters_.channels[number].name == name) {
			return number;
		}
	}
	throw std::invalid_argument("there is no channel \"" + name + "\"");
}

std::optional<EditionNumber> Catalogue::EditionAt(std::size_t channel, Moment time) const {
	const std::vector<EditionNumber>& shown = channels_[channel];
	for (auto number = shown.rbegin(); number != shown.rend(); ++number) {
		if (editions_[*number].from <= time) {
			return *number;
		}
	}
	return std::nullopt;
}

Moment Catalogue::OfferedAt(std::size_t channel, Version version) const {
	for (const EditionNumber number : channels_[channel]) {
		if (editions_[number].newest >= version) {
			return editions_[number].newest == version ? editions_[number].from : kNever;
		}
	}
	return kNever;
}

Edition Catalogue::Current(const std::string& channel) const {
	const std::vector<EditionNumber>& shown = channels_[ChannelNumber(channel)];
	return shown.empty() ? Edition() : editions_[shown.back()];
}

PackageNumber Catalogue::Add(std::string name, std::uint64_t bytes, Moment at) {
	packages_.push_back({std::move(name), bytes, {at, kNever}});
	return static_cast<PackageNumber>(packages_.size() - 1);
}

/** Keeps the newest diff packages that are together no larger than the full one. */
void Catalogue::Trim(Edition& edition) const {
	std::uint64_t sum = 0;
	std::size_t kept = 0;
	while (kept < edition.diffs.size() && kept < parameters_.document.most_diffs) {
		sum += packages_[edition.diffs[edition.diffs.size() - 1 - kept]].bytes;
		if (sum > packages_[edition.full].bytes) {
			break;
		}
		++kept;
	}
	edition.diffs.erase(edition.diffs.begin(), edition.diffs.end() - static_cast<std::ptrdiff_t>(kept));
	edition.oldest_diff = static_cast<Version>(edition.newest + 1 - kept);
}

void Catalogue::Show(const Publication& what, Edition edition) {
	edition.from = what.at;
	const DocumentSizes& sizes = parameters_.document;
	edition.bytes = what.document_bytes >= 0 ? static_cast<std::uint64_t>(what.document_bytes)
	                                         : sizes.bytes + sizes.bytes_each_diff * edition.diffs.size();
	editions_.push_back(std::move(edition));
	channels_[ChannelNumber(what.channel)].push_back(static_cast<EditionNumber>(editions_.size() - 1));
}

/** A chain goes on from whichever channel has the version before. */
void Catalogue::Publish(const Publication& what) {
	Edition edition = Current(what.channel);
	for (const Channel& channel : parameters_.channels) {
		const Edition other = Current(channel.name);
		edition = other.newest == last_ && edition.newest != last_ ? other : edition;
	}
	const bool goes_on = edition.newest == last_ && last_ != kNothing && what.diff_bytes > 0;
	edition.newest = ++last_;
	const std::string number = std::to_string(last_);
	edition.full = Add("v" + number, what.full_bytes, what.at);
	if (goes_on) {
		edition.diffs.push_back(Add("d" + number, what.diff_bytes, what.at));
	} else {
		edition.diffs.clear();
	}
	Trim(edition);
	Show(what, std::move(edition));
}

void Catalogue::Promote(const Publication& what) {
	Edition edition = Current(what.from);
	if (edition.newest < Current(what.channel).newest) {
		throw std::invalid_argument("the channel \"" + what.from + "\" is older than \"" + what.channel + "\"");
	}
	Show(what, std::move(edition));
}

/** Empty packages take the place of those to the withdrawn versions, under names of their own. */
void Catalogue::Withdraw(const Publication& what) {
	Edition edition = Current(what.channel);
	const int good = what.to >= 0 ? what.to : edition.newest - 1;
	if (good < 1 || good >= edition.newest) {
		throw std::invalid_argument("no version " + std::to_string(good) + " to go back to");
	}
	withdrawals_.push_back({what.at, static_cast<Version>(good + 1), edition.newest});
	const std::string by = "w" + std::to_string(++last_);
	const int kept = std::max(good - edition.oldest_diff + 1, 0);
	for (auto at = static_cast<std::size_t>(kept); at < edition.diffs.size(); ++at) {
		const std::string name = "d" + std::to_string(edition.oldest_diff + at) + by;
		edition.diffs[at] = Add(name, parameters_.document.empty_diff_bytes, what.at);
	}
	for (Package& package : packages_) {
		for (int version = good + 1; version <= edition.newest; ++version) {
			if (package.name == "v" + std::to_string(version)) {
				package.there.end = std::min(package.there.end, what.at);
			}
		}
	}
	const bool goes_on = last_ == edition.newest + 1 && what.diff_bytes > 0;
	edition.newest = last_;
	edition.full = Add("v" + std::to_string(last_), what.full_bytes, what.at);
	if (goes_on) {
		edition.diffs.push_back(Add("d" + std::to_string(last_), what.diff_bytes, what.at));
	} else {
		edition.diffs.clear();
	}
	Trim(edition);
	Show(what, std::move(edition));
}

/** Diff packages that no document names any more are deleted; full ones stay. */
void Catalogue::RemoveUnnamed(Moment at) {
	std::set<PackageNumber> named;
	for (const Channel& channel : parameters_.channels) {
		const Edition edition = Current(channel.name);
		named.insert(edition.diffs.begin(), edition.diffs.end());
	}
	for (std::size_t number = 0; number < packages_.size(); ++number) {
		Package& package = packages_[number];
		if (package.name[0] == 'd' && package.there.end == kNever &&
		    named.count(static_cast<PackageNumber>(number)) == 0) {
			package.there.end = at;
		}
	}
}

} // namespace tarn::fleet
