/** @file Whom a long operation tells what it does. */
#ifndef PUBLISHER_PACKAGES_OBSERVER_H
#define PUBLISHER_PACKAGES_OBSERVER_H

#include "publisher/packages/tree.h"

#include <cstdint>
#include <functional>
#include <string>

namespace tarn::publisher {

/** Gets warnings and progress. */
struct PublishObserver {
	std::function<void(const std::string& sentence)> warn = [](const std::string& /*sentence*/) {};
	std::function<void()> waiting = [] {};
	/** Called often, with what is done so far and the tree that holds the totals. */
	std::function<void(std::uint64_t files, std::uint64_t bytes, const Tree& tree)> progress =
	    [](std::uint64_t /*files*/, std::uint64_t /*bytes*/, const Tree& /*tree*/) {};
	/** Called by one thread at a time while a diff is made: which step, and how many of its parts are done. */
	std::function<void(const std::string& what, std::uint64_t done, std::uint64_t all)> step =
	    [](const std::string& /*what*/, std::uint64_t /*done*/, std::uint64_t /*all*/) {};
};

} // namespace tarn::publisher

#endif
