/** @file What a release changes, in words that several views share. */
#ifndef PUBLISHER_CHANGES_CHANGE_WORDS_H
#define PUBLISHER_CHANGES_CHANGE_WORDS_H

#include "publisher/changes/changes.h"

#include <cstdint>
#include <string>

namespace tarn::publisher {

/** "1 file", "2 files". */
std::string Counted(std::uint64_t count, const std::string& one);
/** "5 inserted, 1 deleted"; "none" when all are 0. */
std::string RowText(const RowCounts& rows);
/** The values of a row that a release touches: "name: 'Roma' -> 'Rome'". */
std::string ValuesText(const RowExample& example);
/** What happens to a table: "column x added, 5 inserted". */
std::string TableText(const TableChange& table);
/** The size of a file, or both sizes, and whether it can be executed. */
std::string SizeText(const FileChange& file);

} // namespace tarn::publisher

#endif
