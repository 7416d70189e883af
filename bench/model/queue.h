/** @file Events in the order of their time, hundreds of millions of them. */
#ifndef BENCH_MODEL_QUEUE_H
#define BENCH_MODEL_QUEUE_H

#include "bench/model/parameters.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tarn::fleet {

/** Small, because there is one for each device. */
struct Event {
	std::uint32_t milliseconds = 0;
	std::uint32_t device = 0;

	friend bool operator<(const Event& a, const Event& b) {
		return a.milliseconds != b.milliseconds ? a.milliseconds < b.milliseconds : a.device < b.device;
	}
};

/** A list for each minute, which is sorted when its time comes. */
class Queue {
public:
	explicit Queue(Moment length) : minutes_(static_cast<std::size_t>(length / kMinute) + 1) {}

	/** Later than the end is dropped; earlier than what was taken is not allowed. */
	void Add(Moment time, std::uint32_t device);
	std::optional<Event> Take();

private:
	std::vector<std::vector<Event>> minutes_;
	std::size_t minute_ = 0;
	std::size_t next_ = 0;
	bool is_sorted_ = false;
};

} // namespace tarn::fleet

#endif
