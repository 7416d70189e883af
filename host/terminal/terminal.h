/** @file The terminal. */
#ifndef HOST_TERMINAL_TERMINAL_H
#define HOST_TERMINAL_TERMINAL_H

#include "base/mutex.h"

#include <ostream>
#include <string>

namespace tarn::ctl {

/**
 * Everything that the program writes goes through here, from any thread, so that a line that is redrawn on the error
 * stream never mixes with other output.
 */
class Terminal {
public:
	/** @param draws  whether the error stream is a terminal, on which a line can be redrawn */
	Terminal(std::ostream& out, std::ostream& err, bool draws);

	/** Results; the text ends its own lines. */
	void Say(const std::string& text);
	/** One sentence about a failure, on a line of its own behind the program's name; made printable. */
	void Complain(const std::string& sentence);

	bool Draws() const { return draws_; }
	/** Replaces the redrawn line, and does nothing where no line can be redrawn; empty clears it. */
	void Draw(const std::string& line);
	/** Whether all output so far reached its destination. */
	bool Good();

private:
	void ClearLine() TARN_REQUIRES(mutex_);

	Mutex mutex_;
	std::ostream& out_ TARN_GUARDED_BY(mutex_);
	std::ostream& err_ TARN_GUARDED_BY(mutex_);
	const bool draws_;
	bool drawn_ TARN_GUARDED_BY(mutex_) = false;
};

} // namespace tarn::ctl

#endif
