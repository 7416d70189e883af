#include "base/record_entries.h"

#include <nlohmann/json.hpp>

#include <array>
#include <exception>
#include <fstream>
#include <new>

namespace tarn {

namespace {

using nlohmann::json;
using Event = json::parse_event_t;

/** The record has another form than it is written in. */
class OtherForm : public std::exception {};

/** How deep the parser is: in the record's own members, in the entries, or in what an entry consists of. */
enum Depth { kRecord = 0, kMembers = 1, kEntries = 2, kValues = 3 };

// A record of very many members would be held as a whole.
constexpr std::size_t kMostMembers = 8;

/** Judges what the parser finds, and takes each entry away from it. */
class EntryTaker {
public:
	explicit EntryTaker(const RecordForm& form) : form_(form) {}

	/** Whether the parser has to keep what it found. */
	bool Keep(int depth, Event event, const json& value) {
		if (event == Event::key) {
			Name(depth, value.get_ref<const std::string&>());
		} else if (event == Event::object_start) {
			Begin(depth);
		} else if (event == Event::object_end) {
			End(depth, value);
		} else {
			// Entries and what holds them are objects, and nothing is a list.
			ExpectInRecord(event == Event::value && (depth == kValues || (depth == kMembers && !IsEntries())));
		}
		return event != Event::object_end || depth != kEntries;
	}

private:
	[[nodiscard]] bool IsEntries() const { return names_[kMembers] == form_.entries; }

	void Name(int depth, const std::string& name) {
		const auto at = static_cast<std::size_t>(depth);
		names_.at(at) = name;
		ExpectInRecord(++counts_.at(at) <= kMostMembers || depth == kEntries);
	}

	void Begin(int depth) {
		ExpectInRecord(depth == kRecord || depth == kEntries || (depth == kMembers && IsEntries()));
		counts_.at(static_cast<std::size_t>(depth) + 1) = 0;
	}

	void End(int depth, const json& object) {
		// Of members with one name the parser keeps the last.
		ExpectInRecord(depth == kMembers || object.size() == counts_.at(static_cast<std::size_t>(depth) + 1));
		if (depth == kEntries) {
			form_.take_entry(names_[kEntries], object);
		}
	}

	const RecordForm& form_;
	std::array<std::string, kValues + 1> names_;    // the last at each depth
	std::array<std::size_t, kValues + 1> counts_{}; // of the names at each depth
};

} // namespace

bool ReadRecordEntries(const std::string& path, const RecordForm& form) {
	EntryTaker taker(form);
	std::ifstream file(path, std::ios::binary);
	try {
		const json record = json::parse(
		    file, [&taker](int depth, Event event, const json& value) { return taker.Keep(depth, event, value); });
		// The parser takes a zero byte for the end as well.
		ExpectInRecord(file.eof() && record.contains(form.entries));
		form.take_record(record);
		return true;
	} catch (const std::bad_alloc&) {
		throw;
	} catch (const std::exception&) {
		return false;
	}
}

void ExpectInRecord(bool is_as_expected) {
	if (!is_as_expected) {
		throw OtherForm();
	}
}

} // namespace tarn
