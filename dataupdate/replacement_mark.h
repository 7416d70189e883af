/**
 * @file
 * Remembering that the installed files of a database are being replaced.
 *
 * The mark is on the disk before the first file changes and goes when the new state has been recorded. Whoever finds it
 * knows that the files may be a mixture of two versions which no record describes, and that patches would make a third
 * of them.
 */
#ifndef DATAUPDATE_REPLACEMENT_MARK_H
#define DATAUPDATE_REPLACEMENT_MARK_H

#include "export.h"

#include <string>

namespace tarn::dataupdate {

/**
 * Sets a database's mark durably; the operation is then not interrupted any more. Throws UpdateError "Fail to mark
 * replacement: <path>: <why>".
 */
void SetReplacementMark(const std::string& id);

/**
 * Sets the mark as durably, without holding back interruptions: for a host that moves a database. False when it is set
 * already. Throws like SetReplacementMark().
 */
TARNDBUD_EXPORT bool MarkUnfinished(const std::string& id);

/**
 * Whether the mark contradicts the record beside it. Without a record it says nothing: then nothing is known to be
 * installed, or the host keeps its records elsewhere and clears no marks.
 */
TARNDBUD_EXPORT bool IsReplacementMarked(const std::string& id);

/**
 * Removes the mark once the record of what is installed is on the disk. A failure is logged and leaves the mark: the
 * next update is then merely a full one.
 */
TARNDBUD_EXPORT void ClearReplacementMark(const std::string& id) noexcept;

/**
 * Remembers durably that a version was unpacked over an earlier one, whose files no diff package would delete. Only a
 * full update is then exact, and takes the mark away. Throws like SetReplacementMark().
 */
void SetOverlayMark(const std::string& id);
bool IsOverlayMarked(const std::string& id);
/** A failure is logged, since the next update is then merely a full one. */
void ClearOverlayMark(const std::string& id) noexcept;

} // namespace tarn::dataupdate

#endif
