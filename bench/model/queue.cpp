#include "bench/model/queue.h"

#include <algorithm>

namespace tarn::fleet {

void Queue::Add(Moment time, std::uint32_t device) {
	const Moment minute = time / kMinute;
	if (minute >= static_cast<Moment>(minutes_.size())) {
		return;
	}
	std::vector<Event>& events = minutes_[static_cast<std::size_t>(minute)];
	const Event event = {static_cast<std::uint32_t>(time), device};
	if (static_cast<std::size_t>(minute) != minute_ || !is_sorted_) {
		events.push_back(event);
		return;
	}
	const auto waiting = events.begin() + static_cast<std::ptrdiff_t>(next_);
	events.insert(std::upper_bound(waiting, events.end(), event), event);
}

std::optional<Event> Queue::Take() {
	for (; minute_ < minutes_.size(); ++minute_, next_ = 0, is_sorted_ = false) {
		std::vector<Event>& events = minutes_[minute_];
		if (!is_sorted_) {
			std::sort(events.begin(), events.end());
			is_sorted_ = true;
		}
		if (next_ < events.size()) {
			return events[next_++];
		}
		std::vector<Event>().swap(events);
	}
	return std::nullopt;
}

} // namespace tarn::fleet
