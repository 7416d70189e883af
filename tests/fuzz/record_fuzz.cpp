// Hostile records: whatever is read entry by entry is what a parser of whole documents finds in the same bytes. The
// input is the record.
#include "base/record_entries.h"
#include "entry.h"
#include "in_memory.h"

#include <nlohmann/json.hpp>

#include <string>

namespace {

using nlohmann::json;
using tarn::test::Require;

constexpr const char* kEntries = "files";

/** Takes a record apart and puts its parts together again; a discarded value when it is refused. */
json ReadInParts(const std::string& path) {
	json entries = json::object();
	json whole;
	bool is_taken = false;
	const tarn::RecordForm form = {kEntries,
	    [&](const std::string& name, const json& entry) {
		    Require(entry.is_object(), "an entry is an object");
		    Require(!is_taken, "the record comes behind its entries");
		    entries[name] = entry;
	    },
	    [&](const json& record) {
		    Require(record.at(kEntries).empty(), "the record comes without its entries");
		    whole = record;
		    is_taken = true;
	    }};
	json refused(json::value_t::discarded);
	if (!tarn::ReadRecordEntries(path, form)) {
		return refused;
	}
	Require(is_taken, "a record that is read is handed out");
	whole[kEntries] = entries;
	return whole;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	const tarn::UniqueFd file = tarn::test::InMemory(data, size);
	const json record = ReadInParts("/proc/self/fd/" + std::to_string(file.Get()));
	if (!record.is_discarded()) {
		const json expected = json::parse(data, data + size, nullptr, false);
		Require(!expected.is_discarded(), "what is read is well-formed");
		Require(record == expected, record.dump() + " instead of " + expected.dump());
	}
	return 0;
}
