/** @file Values of rows as people read them: short, on one line, and safe for a terminal. */
#ifndef PUBLISHER_SQLITE_SHOWN_VALUE_H
#define PUBLISHER_SQLITE_SHOWN_VALUE_H

#include "publisher/sqlite/sql_text.h"

#include <string>
#include <string_view>
#include <utility>

namespace tarn::publisher {

/** A text as valid UTF-8 without control characters: bytes that are neither are written as \xNN. */
std::string ShownText(std::string_view text);

/**
 * A number, a text in quotes or its beginning, NULL, or the size of a blob.
 *
 * @param is_utf8  whether the database's texts are; of others the size is shown
 */
std::string ShownValue(const SqlValue& value, bool is_utf8);

/** Two values that differ: of long texts, the part around the first difference. */
std::pair<std::string, std::string> ShownChange(const SqlValue& before, const SqlValue& after, bool is_utf8);

} // namespace tarn::publisher

#endif
