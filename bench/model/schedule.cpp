#include "bench/model/schedule.h"

#include <algorithm>
#include <cmath>

namespace tarn::fleet {

namespace {

Moment Part(double fraction, Moment whole) {
	return static_cast<Moment>(fraction * static_cast<double>(whole));
}

Moment FloorDivide(Moment number, Moment divisor) {
	return number / divisor - (number % divisor < 0 ? 1 : 0);
}

/** Takes a span in which a device is off out of one in which it is on: what is left of it from a moment on. */
Span Without(Span on, const Span& off, Moment time) {
	if (off.end <= on.begin || off.begin >= on.end || off.begin >= off.end) {
		return on;
	}
	if (off.begin > std::max(on.begin, time)) {
		on.end = off.begin;
	} else if (off.end > time) {
		on.begin = off.end;
	} else {
		on.begin = std::max(on.begin, off.end);
	}
	return on;
}

} // namespace

bool Presence::IsHit(std::uint32_t device, std::size_t outage) const {
	const double share = parameters_.outages[outage].share;
	return share >= 1 || chance_.Of(device, Question::kOutage, static_cast<std::int64_t>(outage)) < share;
}

Span Presence::Usual(std::uint32_t device, const Habit& habit, Moment time) const {
	if (habit.hours >= kDay && habit.days >= 1) {
		return {-kDay, kNever};
	}
	const Moment zone = ZoneOf(device);
	for (Moment day = FloorDivide(time + zone, kDay) - 2;; ++day) {
		const Moment late = Part(chance_.Of(device, Question::kDayBegin, day), habit.spread);
		const Moment begin = day * kDay - zone + habit.begin + late;
		const bool is_on = habit.days >= 1 || chance_.Of(device, Question::kDayOn, day) < habit.days;
		if (is_on && begin + habit.hours > time) {
			return {begin, begin + habit.hours};
		}
		if (begin > parameters_.length + kDay) {
			return {begin, begin};
		}
	}
}

Span Presence::Away(std::uint32_t device, const Habit& habit) const {
	if (habit.away_share <= 0 || chance_.Of(device, Question::kAway) >= habit.away_share) {
		return {};
	}
	const Moment begin = Part(chance_.Of(device, Question::kAwayBegin), parameters_.length);
	const double length = -std::log(1 - chance_.Of(device, Question::kAwayLength));
	return {begin, begin + Part(length, habit.away_length)};
}

Span Presence::BlackOut(std::uint32_t device, std::size_t outage) const {
	const Outage& about = parameters_.outages[outage];
	if (about.place != Place::kDevices || !IsHit(device, outage)) {
		return {};
	}
	const double late = chance_.Of(device, Question::kOutage, -1 - static_cast<std::int64_t>(outage));
	return {about.span.begin, about.span.end + Part(late, about.spread)};
}

bool Presence::IsAfterOutage(std::uint32_t device, Moment begin) const {
	for (std::size_t outage = 0; outage < parameters_.outages.size(); ++outage) {
		const Span off = BlackOut(device, outage);
		if (off.begin < off.end && off.end == begin) {
			return true;
		}
	}
	return false;
}

Span Presence::SpanAfter(std::uint32_t device, Moment time) const {
	const Habit& habit = parameters_.habits[HabitOf(device)];
	const Span away = Away(device, habit);
	for (;;) {
		Span on = Usual(device, habit, time);
		const Moment usual_end = on.end;
		// Twice, because one span may end within the other.
		for (int round = 0; round < 2; ++round) {
			on = Without(on, away, time);
			for (std::size_t outage = 0; outage < parameters_.outages.size(); ++outage) {
				on = Without(on, BlackOut(device, outage), time);
			}
		}
		if (on.begin < on.end || usual_end > parameters_.length) {
			return on;
		}
		time = usual_end;
	}
}

Moment Schedule::Calendar(Moment after, Moment zone) const {
	const Moment period = parameters_.timer.period;
	return (FloorDivide(after + zone, period) + 1) * period - zone;
}

Moment Schedule::Delayed(std::uint32_t device, Moment base) const {
	const TimerSettings& timer = parameters_.timer;
	return base + Part(chance_.Of(device, Question::kDelay, timer.fixed_delay ? 0 : base), timer.delay);
}

/** systemd wakes a machine at one moment of each minute for all its timers, another one on each machine. */
Moment Schedule::Coalesced(std::uint32_t device, Moment elapse) const {
	const Moment accuracy = parameters_.timer.accuracy;
	const Moment phase = Part(chance_.Of(device, Question::kPhase), accuracy);
	return (FloorDivide(elapse - phase - 1, accuracy) + 1) * accuracy + phase;
}

Moment Schedule::First(std::uint32_t device) const {
	if (IsStillToCome(device)) {
		// Somebody installs it, and the timer begins.
		const Moment comes = Part(chance_.Of(device, Question::kJoinTime), parameters_.length);
		return std::max(comes, presence_.SpanAfter(device, comes).begin);
	}
	return Elapse(device, -1, 0);
}

Moment Schedule::AfterPause(std::uint32_t device, Moment calendar, Moment begin, Moment elapse) const {
	if (parameters_.habits[presence_.HabitOf(device)].resumes && !presence_.IsAfterOutage(device, begin)) {
		return std::max(elapse, begin);
	}
	const bool is_missed = calendar < begin;
	const Moment next = is_missed && !parameters_.timer.persistent ? Calendar(begin, presence_.ZoneOf(device)) : begin;
	return Delayed(device, std::max(calendar, next));
}

Moment Schedule::Elapse(std::uint32_t device, Moment last, Moment now) const {
	const Moment calendar = Calendar(last, presence_.ZoneOf(device));
	Span on = presence_.SpanAfter(device, now);
	Moment elapse = Delayed(device, calendar);
	if (on.begin > now) {
		elapse = AfterPause(device, calendar, on.begin, elapse);
	}
	while (!on.Holds(elapse)) {
		if (on.end > parameters_.length) {
			return kNever;
		}
		on = presence_.SpanAfter(device, on.end);
		elapse = AfterPause(device, calendar, on.begin, elapse);
	}
	return elapse > parameters_.length ? kNever : Coalesced(device, elapse);
}

} // namespace tarn::fleet
