/** @file Texts for terminals and for monitoring. */
#ifndef HOST_TERMINAL_TEXT_H
#define HOST_TERMINAL_TEXT_H

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarn::ctl {

/** "59 min", "47 h", "12 d": of that unit only whole ones; a negative duration is "in the future". */
std::string FormatDuration(std::int64_t seconds);

/** Local date and time of day, "2026-11-23 14:05". */
std::string FormatMoment(std::time_t instant);

/** Local time of day, "14:05". */
std::string FormatClock(std::time_t instant);

/** Rows as columns of equal width, two blanks apart, each row ending in a newline without blanks before it. */
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);

/** Null for no value. */
template<typename T>
Json::Value OrNull(const std::optional<T>& value) {
	return value ? Json::Value(*value) : Json::Value();
}

/** A JSON document as text, indented by tabs, with a newline at the end. */
std::string FormatJson(const Json::Value& value);
/** The same as one line. */
std::string FormatJsonLine(const Json::Value& value);

using Labels = std::vector<std::pair<std::string, std::string>>;

/** Gauges and counters, each with all its samples in one place, as the form wants it. */
class Metrics {
public:
	/** Adds a sample of any number; the help of a name's first sample counts. Names in "_total" are counters. */
	template<typename Number>
	void Add(const std::string& name, const std::string& help, const Labels& labels, Number value) {
		AddValue(name, help, labels, static_cast<double>(value));
	}
	/** Names in the order in which they came first; empty without samples. */
	std::string Text() const;

private:
	struct Family {
		std::string name;
		std::string help;
		std::string samples;
	};
	void AddValue(const std::string& name, const std::string& help, const Labels& labels, double value);

	std::vector<Family> families_;
};

/** The last operation on a database that ended as a failure. */
struct FailureRecord {
	std::string operation;
	std::int64_t time = 0; ///< In seconds since 1970.
	int exit_status = 0;
	std::string sentence;
	bool is_over = false; ///< An operation has succeeded since; not recorded.
};

/** One database; what is unknown or absent has no value. */
struct StatusRow {
	std::string id;
	std::optional<int> installed_version;
	std::optional<int> offered_version;
	std::string offer_error;               ///< Why there is no offered version.
	std::optional<std::int64_t> published; ///< When the installed data was published, in seconds since 1970.
	bool scheduled = false;
	bool updating = false;
	bool unfinished = false; ///< A replacement of its files was begun and not finished; it is installed again.
	bool held = false;       ///< The administrator keeps it at its version, or below held_up_to.
	std::optional<int> held_up_to;
	std::string hold_problem; ///< Why the hold cannot be understood.
	std::optional<std::string> install_dir;
	std::optional<std::string> old_dir; ///< Where it is installed instead of in install_dir, which is no installation.
	std::optional<std::string> volume;
	std::optional<std::int64_t> last_success; ///< When an operation last succeeded.
	std::optional<FailureRecord> last_failure;
	std::optional<int> refused_version;   ///< A check of this machine refused it, and it has not been installed.
	std::optional<std::int64_t> next_run; ///< When a scheduled update includes it next.
	std::string volume_problem;           ///< Why the volume is not safe to write to; nothing is updated meanwhile.
};

/**
 * Whether a later version is installed than the server offers, which no update changes: the publisher took a version
 * back, or who answers is not the publisher's server. No value when the server's is unknown. What is unfinished never
 * is, because it is installed again.
 */
std::optional<bool> IsAboveOffered(const StatusRow& row);

/** @param now  when the ages are told, in seconds since 1970 */
std::string FormatStatusTable(const std::vector<StatusRow>& rows, std::time_t now);

/** What failed last, a line for each database on which no operation has succeeded since; empty without such. */
std::string FormatFailures(const std::vector<StatusRow>& rows, std::time_t now);

/** An array with an object for each database; no value is null, and an error is there only when there is one. */
Json::Value StatusToJson(const std::vector<StatusRow>& rows, std::time_t now);

} // namespace tarn::ctl

#endif
