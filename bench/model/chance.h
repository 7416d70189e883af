/** @file Chance that depends on a seed and on what is asked for, never on the order of the questions. */
#ifndef BENCH_MODEL_CHANCE_H
#define BENCH_MODEL_CHANCE_H

#include <cstdint>

namespace tarn::fleet {

/** What is left to chance about a device. */
enum class Question : std::uint64_t {
	kHabit = 1,
	kZone,
	kCache,
	kChannel,
	kDelay,
	kPhase,
	kJoins,
	kJoinTime,
	kDayOn,
	kDayBegin,
	kAway,
	kAwayBegin,
	kAwayLength,
	kOutage,
};

class Chance {
public:
	explicit Chance(std::uint64_t seed) : seed_(Mix(seed)) {}

	/** A number from 0 up to but not including 1, always the same for the same arguments. */
	[[nodiscard]] double Of(std::uint32_t device, Question question, std::int64_t which = 0) const {
		const std::uint64_t about = (std::uint64_t{device} << 8U) + static_cast<std::uint64_t>(question);
		constexpr unsigned kUnused = 11;
		constexpr double kSteps = 0x1p-53;
		return static_cast<double>(Mix(Mix(seed_ ^ about) + static_cast<std::uint64_t>(which)) >> kUnused) * kSteps;
	}

private:
	/** The finalizer of SplitMix64. */
	static std::uint64_t Mix(std::uint64_t value) {
		value += 0x9e3779b97f4a7c15U;
		value = (value ^ (value >> 30U)) * 0xbf58476d1ce4e5b9U;
		value = (value ^ (value >> 27U)) * 0x94d049bb133111ebU;
		return value ^ (value >> 31U);
	}

	std::uint64_t seed_;
};

} // namespace tarn::fleet

#endif
