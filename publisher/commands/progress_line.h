/** @file What the commands print to, and the line of progress on a terminal. */
#ifndef PUBLISHER_COMMANDS_PROGRESS_LINE_H
#define PUBLISHER_COMMANDS_PROGRESS_LINE_H

#include "publisher/packages/observer.h"

#include <functional>
#include <ostream>

namespace tarn::publisher {

/** Where a command's results and complaints go. */
struct Streams {
	std::ostream& out;
	std::ostream& err;
	bool terminal; // whether err is a terminal
};

/**
 * Calls an operation with an observer that sends warnings to the stream of complaints. On a terminal it also shows the
 * progress: on one line, rewritten a few times a second, and removed when the operation is over.
 */
void WithProgress(const Streams& streams, const std::function<void(const PublishObserver& observer)>& operation);

} // namespace tarn::publisher

#endif
