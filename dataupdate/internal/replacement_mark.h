/**
 * @file
 * Remembering that the installed files of a database are being replaced.
 *
 * The mark is on the disk before the first file changes and goes when the new state has been recorded. Whoever finds it
 * knows that the files may be a mixture of two versions which no record describes, and that patches would make a third
 * of them. Class Update sets, heeds and removes the mark (replacement_scope.h); the classes that it uses know nothing
 * of marks, so that a host which calls those classes by itself gets no file that it did not ask for.
 */
#ifndef DATAUPDATE_INTERNAL_REPLACEMENT_MARK_H
#define DATAUPDATE_INTERNAL_REPLACEMENT_MARK_H

#include "dataupdate/export.h"

#include <string>

namespace tarn::dataupdate {

/**
 * Sets a database's mark durably. Throws UpdateError "Fail to mark replacement: <path>: <why>"; the mark may then be
 * there all the same.
 */
void SetReplacementMark(const std::string& id);

/**
 * Sets the mark as durably, for a host that moves a database. False when the mark is set already. Throws like
 * SetReplacementMark(), and the mark is then not there.
 */
TARNDBUD_EXPORT bool MarkUnfinished(const std::string& id);

/**
 * Whether the mark contradicts the record beside it. Without a record the mark says nothing: then nothing is known to
 * be installed, or the host keeps its records elsewhere.
 */
TARNDBUD_EXPORT bool IsReplacementMarked(const std::string& id);

/**
 * Removes the mark once the record of what is installed is on the disk. A failure is logged and leaves the mark: the
 * next update is then merely a full one.
 */
TARNDBUD_EXPORT void ClearReplacementMark(const std::string& id) noexcept;

} // namespace tarn::dataupdate

#endif
