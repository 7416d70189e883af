/** @file Work that several threads share. */
#ifndef BASE_PARALLEL_H
#define BASE_PARALLEL_H

#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace tarn {

/** The processors that this process may use, which may be fewer than the machine has; at least one. */
unsigned Processors();

/**
 * Starts threads that all run one function, up to a number, and fewer when the system allows no more. They block all
 * signals, so that a host's handlers never run on them.
 */
[[nodiscard]] std::vector<std::thread> StartThreads(std::size_t most, const std::function<void()>& run);

/**
 * Does independent pieces of work, begun in the order of their numbers, with one thread for each processor. An
 * exception ends the work; of several, that of the first piece is thrown.
 *
 * @param work      called with each number below the count, by any thread
 * @param finished  called with the number of pieces done so far, by one thread at a time
 */
void DoInParallel(std::size_t count, const std::function<void(std::size_t)>& work,
    const std::function<void(std::size_t)>& finished = {});

} // namespace tarn

#endif
