/** @file When each device is on, and when its timer fires. */
#ifndef BENCH_MODEL_SCHEDULE_H
#define BENCH_MODEL_SCHEDULE_H

#include "bench/model/chance.h"
#include "bench/model/parameters.h"

#include <cstddef>
#include <vector>

namespace tarn::fleet {

/** Chooses by shares: the item in whose part of 0 to 1 a fraction lies. */
template<typename Item>
std::size_t Choose(const std::vector<Item>& items, double fraction) {
	std::size_t at = 0;
	for (; at + 1 < items.size() && fraction >= items[at].share; ++at) {
		fraction -= items[at].share;
	}
	return at;
}

/** When devices are on. The parameters must outlive it. */
class Presence {
public:
	Presence(const Parameters& parameters, const Chance& chance) : parameters_(parameters), chance_(chance) {}

	/** The first span for which a device is on without a break and that ends after a moment. */
	[[nodiscard]] Span SpanAfter(std::uint32_t device, Moment time) const;

	[[nodiscard]] std::size_t HabitOf(std::uint32_t device) const {
		return Choose(parameters_.habits, chance_.Of(device, Question::kHabit));
	}
	[[nodiscard]] Moment ZoneOf(std::uint32_t device) const {
		return parameters_.zones[Choose(parameters_.zones, chance_.Of(device, Question::kZone))].offset;
	}
	/** Whether a device that is on from a moment was off until then for an outage, after which all boot. */
	[[nodiscard]] bool IsAfterOutage(std::uint32_t device, Moment begin) const;
	/** Whether an outage concerns a device. */
	[[nodiscard]] bool IsHit(std::uint32_t device, std::size_t outage) const;

private:
	[[nodiscard]] Span Usual(std::uint32_t device, const Habit& habit, Moment time) const;
	[[nodiscard]] Span Away(std::uint32_t device, const Habit& habit) const;
	[[nodiscard]] Span BlackOut(std::uint32_t device, std::size_t outage) const;

	const Parameters& parameters_;
	Chance chance_;
};

/**
 * The timer as systemd 252 has it: it elapses at the next time of the calendar after it fired last, plus the random
 * delay. A machine that is off at that time has, with Persistent=, the delay begin again when it boots; one that sleeps
 * fires when it wakes.
 */
class Schedule {
public:
	Schedule(const Parameters& parameters, const Chance& chance)
	    : parameters_(parameters), chance_(chance), presence_(parameters, chance) {}

	/** Whether a device joins the fleet after the beginning. */
	[[nodiscard]] bool IsStillToCome(std::uint32_t device) const {
		return chance_.Of(device, Question::kJoins) < parameters_.joining_share;
	}
	/** When a device runs for the first time, or kNever. */
	[[nodiscard]] Moment First(std::uint32_t device) const;

	/** When a device runs next that has run at a moment, or kNever when that is after the end. */
	[[nodiscard]] Moment Next(std::uint32_t device, Moment last) const { return Elapse(device, last, last); }

	[[nodiscard]] const Presence& Devices() const { return presence_; }

private:
	[[nodiscard]] Moment Elapse(std::uint32_t device, Moment last, Moment now) const;
	/** When the timer elapses of a device that is on again, given when it would have elapsed. */
	[[nodiscard]] Moment AfterPause(std::uint32_t device, Moment calendar, Moment begin, Moment elapse) const;
	[[nodiscard]] Moment Calendar(Moment after, Moment zone) const;
	[[nodiscard]] Moment Delayed(std::uint32_t device, Moment base) const;
	[[nodiscard]] Moment Coalesced(std::uint32_t device, Moment elapse) const;

	const Parameters& parameters_;
	Chance chance_;
	Presence presence_;
};

} // namespace tarn::fleet

#endif
