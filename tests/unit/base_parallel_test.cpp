#include "base/parallel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <stdexcept>
#include <string>

namespace tarn {
namespace {

std::string ErrorOf(std::size_t count, const std::function<void(std::size_t)>& work) {
	try {
		DoInParallel(count, work);
	} catch (const std::runtime_error& error) {
		return error.what();
	}
	return "";
}

TEST(Parallel, DoesEveryPieceOnce) {
	std::array<std::atomic<int>, 1000> done = {};
	std::size_t finished = 0;
	DoInParallel(
	    done.size(), [&](std::size_t index) { ++done.at(index); },
	    [&](std::size_t all) { EXPECT_EQ(all, ++finished); });
	EXPECT_EQ(finished, done.size());
	EXPECT_TRUE(std::all_of(done.begin(), done.end(), [](const std::atomic<int>& count) { return count == 1; }));
}

TEST(Parallel, DoesNothingWithoutPieces) {
	DoInParallel(0, [](std::size_t) { FAIL(); });
}

TEST(Parallel, ThrowsWhatTheFirstOfTheFailedPiecesThrew) {
	const auto fail_from_third = [](std::size_t index) {
		if (index >= 3) {
			throw std::runtime_error(std::to_string(index));
		}
	};
	for (int repetition = 0; repetition < 100; ++repetition) {
		ASSERT_EQ(ErrorOf(1000, fail_from_third), "3");
	}
}

TEST(Parallel, BeginsNothingMoreAfterAFailure) {
	std::atomic<std::size_t> begun = 0;
	const auto fail = [&](std::size_t) {
		++begun;
		throw std::runtime_error("broken");
	};
	EXPECT_EQ(ErrorOf(100'000, fail), "broken");
	EXPECT_LE(begun, Processors());
}

TEST(Parallel, StartsNoMoreThreadsThanAskedFor) {
	std::atomic<int> runs = 0;
	for (std::thread& thread : StartThreads(3, [&] { ++runs; })) {
		thread.join();
	}
	EXPECT_EQ(runs, 3);
}

} // namespace
} // namespace tarn
