/**
 * @file
 * What the library is doing right now, for a host that shows progress.
 *
 * A host's own thread may ask at any time while another one runs an update; the library calls nobody back. One activity
 * is known per process, the innermost that began last. What the library's own threads do beside it, taking digests and
 * syncing, is not told.
 */
#ifndef DATAUPDATE_PROGRESS_H
#define DATAUPDATE_PROGRESS_H

#include "dataupdate/export.h"

#include <cstdint>
#include <string>

namespace tarn::dataupdate {

/** Kinds of work. */
enum class Phase { kIdle, kDownload, kUnpack, kApply, kHash, kPatch, kCheck };

/** One piece of work. */
struct Activity {
	Phase phase = Phase::kIdle; ///< What is done.
	std::string path; ///< The file that is downloaded or patched, or the directory that is filled, replaced or hashed.
	std::uint64_t bytes = 0;  ///< Copied or hashed; 0 while another program works (download, patch).
	std::uint64_t serial = 0; ///< Grows with every activity that begins or ends.
};

/** A copy of the current activity; kIdle when the library does nothing. */
TARNDBUD_EXPORT Activity CurrentActivity();

/** Bytes of all files that this process has downloaded, and of those whose download broke off. */
TARNDBUD_EXPORT std::uint64_t DownloadedBytes();

} // namespace tarn::dataupdate

#endif
