/** @file What the HTTP client says on its error stream, kept for whoever explains its failure. */
#ifndef PLATFORM_TARNCORE_COMPLAINTS_H
#define PLATFORM_TARNCORE_COMPLAINTS_H

#include "base/unique_fd.h"

#include <string>

namespace tarn::core {

/** The last line of a client's output that tells why it failed; empty when there is none. Printable, and bounded. */
std::string LastComplaint(const std::string& output);

/**
 * Takes a program's error stream and keeps its end. Has to be drained now and then: a program whose output nobody takes
 * waits.
 */
class Complaints {
public:
	/** Without a stream, Stream() is -1. */
	Complaints();

	/** Where the program writes. */
	int Stream() const { return write_end_.Get(); }
	/** To be called once the program has been started, which has the stream itself by then. */
	void CloseStream() { write_end_.Reset(); }
	/** Takes what has been written; never waits. */
	void Drain();
	/** By what has been taken. */
	std::string Last() const { return LastComplaint(tail_); }

private:
	UniqueFd read_end_;
	UniqueFd write_end_;
	std::string tail_;
};

} // namespace tarn::core

#endif
