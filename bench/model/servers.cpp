#include "bench/model/servers.h"

#include <algorithm>

namespace tarn::fleet {

namespace {

constexpr std::uint64_t kErrorPageBytes = 153;

std::size_t Index(Moment time, Moment unit, std::size_t size) {
	return std::min(static_cast<std::size_t>(std::max<Moment>(time, 0) / unit), size - 1);
}

std::size_t Units(Moment length, Moment unit) {
	return static_cast<std::size_t>((length + unit - 1) / unit);
}

} // namespace

Tally::Tally(Moment length)
    : seconds_(Units(length, kSecond)), minutes_(Units(length, kMinute)), minute_bytes_(Units(length, kMinute)) {}

void Tally::Count(Moment time, std::uint64_t bytes) {
	++requests_;
	bytes_ += bytes;
	++seconds_[Index(time, kSecond, seconds_.size())];
	const std::size_t minute = Index(time, kMinute, minutes_.size());
	++minutes_[minute];
	minute_bytes_[minute] += bytes;
}

bool Origin::IsDown(Moment time) const {
	return std::any_of(parameters_.outages.begin(), parameters_.outages.end(),
	    [time](const Outage& outage) { return outage.place == Place::kOrigin && outage.span.Holds(time); });
}

Answer Origin::Find(const Target& target, Moment time) const {
	Answer answer;
	answer.ready = time + parameters_.caches.fetch;
	answer.status = Status::kNotFound;
	answer.bytes = kErrorPageBytes;
	if (IsDown(time)) {
		answer.status = Status::kUnreachable;
		answer.bytes = 0;
	} else if (!target.is_document) {
		const Package& package = catalogue_.Packages()[target.number];
		if (package.there.Holds(time)) {
			answer.status = Status::kOk;
			answer.bytes = package.bytes;
		}
	} else if (const auto edition = catalogue_.EditionAt(target.number, time)) {
		answer.status = Status::kOk;
		answer.edition = *edition;
		answer.bytes = catalogue_.EditionOf(*edition).bytes;
	}
	return answer;
}

Answer Origin::Ask(const Target& target, Moment time) {
	const Answer answer = Find(target, time);
	tally_.Count(time, answer.bytes);
	return answer;
}

Cache::Cache(
    const Parameters& parameters, const Catalogue& catalogue, Server& upstream, Tally& tally, std::int64_t seconds)
    : parameters_(parameters),
      upstream_(upstream),
      tally_(tally),
      document_seconds_(seconds),
      documents_(parameters.channels.size()),
      packages_(catalogue.Packages().size()) {}

std::int64_t Cache::SecondOf(Moment time) const {
	return (time + parameters_.begin_milliseconds) / kSecond;
}

bool Cache::IsFresh(const Entry& entry, Moment time) const {
	return entry.has_content && entry.fetched <= time && SecondOf(time) <= entry.last_second;
}

Cache::Entry& Cache::EntryOf(const Target& target) {
	return target.is_document ? documents_[target.number] : packages_[target.number];
}

void Cache::LoseContents(Moment time) {
	for (const Outage& outage : parameters_.outages) {
		if (outage.place == Place::kCacheContents && outage.span.begin <= time && outage.span.begin > emptied_) {
			std::fill(documents_.begin(), documents_.end(), Entry());
			std::fill(packages_.begin(), packages_.end(), Entry());
			emptied_ = outage.span.begin;
		}
	}
}

Answer Cache::Fetch(Entry& entry, const Target& target, Moment time) {
	const Answer answer = upstream_.Ask(target, time);
	if (answer.status == Status::kUnreachable && entry.has_content && parameters_.caches.stale_on_error) {
		return entry.content;
	}
	if (answer.status == Status::kOk) {
		entry.had_content = entry.has_content;
		entry.before = entry.content;
		entry.has_content = true;
		entry.content = answer;
		entry.fetched = std::max(answer.ready, time + parameters_.caches.fetch);
		entry.content.ready = entry.fetched;
		entry.last_second = target.is_document ? SecondOf(entry.fetched) + document_seconds_ : kNever;
	}
	return answer;
}

Answer Cache::Find(const Target& target, Moment time) {
	Entry& entry = EntryOf(target);
	if (target.is_document && !parameters_.caches.keeps_documents) {
		return upstream_.Ask(target, time);
	}
	if (IsFresh(entry, time)) {
		return entry.content;
	}
	if (entry.has_content && entry.fetched > time) {
		if (entry.had_content && parameters_.caches.stale_while_updating) {
			return entry.before;
		}
		if (parameters_.caches.lock) {
			return entry.content;
		}
		return upstream_.Ask(target, time);
	}
	return Fetch(entry, target, time);
}

Answer Cache::Ask(const Target& target, Moment time) {
	LoseContents(time);
	Answer answer = Find(target, time);
	answer.ready = std::max(answer.ready, time);
	tally_.Count(time, answer.bytes);
	return answer;
}

} // namespace tarn::fleet
