#include "bench/model/fleet.h"

#include <algorithm>
#include <stdexcept>

namespace tarn::fleet {

namespace {

constexpr std::uint8_t kWeek = 7;

} // namespace

Fleet::Fleet(const Parameters& parameters)
    : parameters_(parameters),
      chance_(parameters.seed),
      schedule_(parameters, chance_),
      catalogue_(parameters),
      origin_(parameters, catalogue_),
      at_shield_(parameters.length),
      at_caches_(parameters.length),
      devices_(parameters.devices),
      followers_(parameters.channels.size()),
      queue_(parameters.length) {
	MakeCaches();
	const auto minutes = static_cast<std::size_t>(parameters.length / kMinute) + 1;
	spreads_.assign(
	    catalogue_.LastVersion() + 1U, {std::vector<std::uint32_t>(minutes), std::vector<std::uint32_t>(minutes)});
	for (const std::string& name : parameters.channel_of) {
		scripted_channels_.push_back(catalogue_.ChannelNumber(name));
	}
	if (!scripted_channels_.empty() && scripted_channels_.size() != devices_.size()) {
		throw std::invalid_argument("channel_of does not name the channel of each device");
	}
}

void Fleet::MakeCaches() {
	const CacheSettings& settings = parameters_.caches;
	Server* upstream = &origin_;
	if (settings.shield) {
		shield_ = std::make_unique<Cache>(parameters_, catalogue_, origin_, at_shield_, settings.shield_seconds);
		upstream = shield_.get();
	}
	for (std::uint32_t number = 0; number < settings.count; ++number) {
		caches_.push_back(
		    std::make_unique<Cache>(parameters_, catalogue_, *upstream, at_caches_, settings.document_seconds));
	}
}

std::size_t Fleet::ChannelOf(std::uint32_t device) const {
	return scripted_channels_.empty() ? Choose(parameters_.channels, chance_.Of(device, Question::kChannel))
	                                  : scripted_channels_[device];
}

Cache& Fleet::CacheOf(std::uint32_t device) {
	const double place = chance_.Of(device, Question::kCache) * static_cast<double>(caches_.size());
	return *caches_[static_cast<std::size_t>(place)];
}

/** With its timer, what was published before the beginning is installed, except where a device is still to come. */
void Fleet::BeginDevice(std::uint32_t device) {
	const std::size_t channel = ChannelOf(device);
	const auto edition = catalogue_.EditionAt(channel, 0);
	if (edition && !schedule_.IsStillToCome(device)) {
		devices_[device].version = catalogue_.EditionOf(*edition).newest;
		++followers_[channel];
	}
	const Moment first = schedule_.First(device);
	if (first != kNever) {
		queue_.Add(first, device);
	}
}

void Fleet::Begin() {
	for (const ScriptedRun& run : parameters_.script) {
		queue_.Add(run.at, run.device);
	}
	for (std::uint32_t device = 0; device < devices_.size() && parameters_.script.empty(); ++device) {
		BeginDevice(device);
	}
}

void Fleet::Run() {
	Begin();
	while (const auto event = queue_.Take()) {
		const Moment time = event->milliseconds;
		if (time >= parameters_.length) {
			return;
		}
		Visit(event->device, time);
		const Moment next = parameters_.script.empty() ? schedule_.Next(event->device, time) : kNever;
		if (next != kNever) {
			queue_.Add(next, event->device);
		}
	}
}

bool Fleet::IsCutOff(std::uint32_t device, Moment time) const {
	for (std::size_t number = 0; number < parameters_.outages.size(); ++number) {
		const Outage& outage = parameters_.outages[number];
		if (outage.place == Place::kNetwork && outage.span.Holds(time) && schedule_.Devices().IsHit(device, number)) {
			return true;
		}
	}
	return false;
}

void Fleet::NoteRun(Device& state, Moment time) const {
	const Moment since = state.runs > 0 ? Moment{state.last_run_second} * kSecond : 0;
	const Moment days = (time - since) / kDay;
	state.longest_gap_days = std::max(state.longest_gap_days, static_cast<std::uint8_t>(days));
	state.last_run_second = static_cast<std::uint32_t>(time / kSecond);
	++state.runs;
}

void Fleet::Visit(std::uint32_t device, Moment time) {
	Device& state = devices_[device];
	++doings_.runs;
	NoteRun(state, time);
	if (IsCutOff(device, time)) {
		++doings_.unreachable;
		return;
	}
	if (!RenewDocument(device, state, time)) {
		++doings_.without_document;
		return;
	}
	const Version newest = catalogue_.EditionOf(state.document).newest;
	if (newest <= state.version) {
		return;
	}
	if (!Install(CacheOf(device), state, time)) {
		++doings_.failed;
		return;
	}
	NoteInstalled(state.version, newest, time);
	state.version = newest;
}

bool Fleet::RenewDocument(std::uint32_t device, Device& state, Moment time) {
	const Moment age = time - state.document_milliseconds;
	if (state.has_document && age <= parameters_.device_document_seconds * kSecond) {
		++doings_.fresh_documents;
		return true;
	}
	const Answer answer = CacheOf(device).Ask({true, static_cast<std::uint16_t>(ChannelOf(device))}, time);
	state.has_document = answer.status == Status::kOk;
	state.document = answer.edition;
	state.document_milliseconds = static_cast<std::uint32_t>(time);
	return state.has_document;
}

bool Fleet::Install(Cache& cache, Device& state, Moment time) {
	const Edition& edition = catalogue_.EditionOf(state.document);
	const std::vector<PackageNumber> chain = edition.ChainFrom(state.version);
	if (!chain.empty() && TakeChain(cache, chain, time)) {
		++doings_.chains;
		return true;
	}
	++doings_.fulls;
	return TakePackage(cache, edition.full, time, doings_.full_bytes);
}

bool Fleet::TakeChain(Cache& cache, const std::vector<PackageNumber>& chain, Moment time) {
	return std::all_of(chain.begin(), chain.end(), [&](PackageNumber number) {
		++doings_.diffs;
		return TakePackage(cache, number, time, doings_.chain_bytes);
	});
}

bool Fleet::TakePackage(Cache& cache, PackageNumber number, Moment time, std::uint64_t& bytes) {
	const Answer answer = cache.Ask({false, number}, time);
	doings_.missing += answer.status == Status::kNotFound ? 1U : 0U;
	bytes += answer.bytes;
	return answer.status == Status::kOk;
}

void Fleet::NoteInstalled(Version before, Version now, Moment time) {
	const auto minute = static_cast<std::size_t>(time / kMinute);
	for (Version version = before; before != kNothing && version++ < now;) {
		++spreads_[version].reached[minute];
	}
	++spreads_[now].installed[minute];
}

std::vector<Group> Fleet::Groups() const {
	std::vector<Group> groups(parameters_.habits.size());
	for (std::uint32_t device = 0; device < devices_.size(); ++device) {
		const Device& state = devices_[device];
		Group& group = groups[schedule_.Devices().HabitOf(device)];
		const Moment since = state.runs > 0 ? Moment{state.last_run_second} * kSecond : 0;
		const Moment last_gap = (parameters_.length - since) / kDay;
		++group.devices;
		group.runs += state.runs;
		group.never += state.runs == 0 ? 1U : 0U;
		group.week_long += std::max<Moment>(state.longest_gap_days, last_gap) >= kWeek ? 1U : 0U;
	}
	return groups;
}

} // namespace tarn::fleet
