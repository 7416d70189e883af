/** @file Work that threads share. */
#ifndef PUBLISHER_PARALLEL_H
#define PUBLISHER_PARALLEL_H

#include <cstddef>
#include <functional>
#include <vector>

namespace tarn::publisher {

/**
 * Does independent pieces of work with one thread for each processor. The first exception ends the work and is thrown.
 *
 * @param order     indices, in the order in which the pieces begin
 * @param work      called with an index, by any thread
 * @param finished  called with the number of pieces done so far, by one thread at a time
 */
void DoInParallel(const std::vector<std::size_t>& order, const std::function<void(std::size_t)>& work,
    const std::function<void(std::size_t)>& finished);

} // namespace tarn::publisher

#endif
