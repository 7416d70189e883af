#ifndef PUBLISHER_SQL_LINES_H
#define PUBLISHER_SQL_LINES_H

#include <istream>
#include <ostream>

namespace tarn::publisher {

/**
 * Rewrites SQL so that every statement is one line, as devices execute scripts line by line: breaks between words
 * become blanks, and those in a text are written as char(10). Transactions are left out, since devices have their own.
 *
 * @return whether it could be done; a script with a break in a quoted name, a comment or a zero byte cannot be kept
 */
bool WriteStatementPerLine(std::istream& script, std::ostream& lines);

} // namespace tarn::publisher

#endif
