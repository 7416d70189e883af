/** @file Records of many files, read file by file: a tree of JSON values would take ten times as much memory. */
#ifndef BASE_RECORD_ENTRIES_H
#define BASE_RECORD_ENTRIES_H

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <string>

namespace tarn {

/** What a record consists of: a few values, and an object of many entries, each an object of a few values itself. */
struct RecordForm {
	/** The member of the record that has the entries. */
	std::string entries;
	/** Takes an entry, in the order in which the entries are written; a name may come twice. */
	std::function<void(const std::string& name, const nlohmann::json& entry)> take_entry;
	/** Takes the record behind the last entry; the object of the entries is empty then. */
	std::function<void(const nlohmann::json& record)> take_record;
};

/**
 * Reads a record, and holds no more of it than an entry at a time. Strict: UTF-8, no lists and no deeper objects, no
 * member twice, nothing behind the record.
 *
 * @return false when the file cannot be read or has another form, or when what takes the parts threw anything but
 *         std::bad_alloc: what was taken is then good for nothing
 */
[[nodiscard]] bool ReadRecordEntries(const std::string& path, const RecordForm& form);

/** Ends the reading unless what is taken is as expected. */
void ExpectInRecord(bool is_as_expected);

} // namespace tarn

#endif
