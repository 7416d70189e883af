/** @file Keeps what the tested code tells syslog, instead of sending it there. */
#ifndef TESTS_UNIT_SUPPORT_SYSLOG_CAPTURE_H
#define TESTS_UNIT_SUPPORT_SYSLOG_CAPTURE_H

#include <string>
#include <vector>

namespace tarn::test {

/** One line for syslog. */
struct LogLine {
	int priority;
	std::string text;
};

/** Collects the lines of its lifetime, from every thread of the process; only one object at a time. */
class SyslogCapture {
public:
	SyslogCapture();
	~SyslogCapture();
	SyslogCapture(const SyslogCapture&) = delete;
	SyslogCapture& operator=(const SyslogCapture&) = delete;
	SyslogCapture(SyslogCapture&&) = delete;
	SyslogCapture& operator=(SyslogCapture&&) = delete;

	/** Everything so far. */
	std::vector<LogLine> Lines() const;

	/** How many lines of the priority hold all the texts. */
	std::size_t Count(int priority, const std::vector<std::string>& texts = {}) const;
};

} // namespace tarn::test

#endif
