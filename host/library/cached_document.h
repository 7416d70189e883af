/** @file The copy of the server's document that is used for an hour. */
#ifndef HOST_LIBRARY_CACHED_DOCUMENT_H
#define HOST_LIBRARY_CACHED_DOCUMENT_H

namespace tarn::ctl {

/**
 * Removes the copy, so that the next command asks the server.
 *
 * @return whether there was a copy
 * @throws CommandError when the copy cannot be removed, with kLocked while somebody fetches the document
 */
bool DropCachedDocument();

} // namespace tarn::ctl

#endif
