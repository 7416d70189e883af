/** @file The server's document as it was fetched last, for what asks nobody. */
#ifndef HOST_LIBRARY_LAST_DOCUMENT_H
#define HOST_LIBRARY_LAST_DOCUMENT_H

#include "dataupdate/utils.h"

#include <json/value.h>

#include <ctime>
#include <optional>
#include <string>

namespace tarn::ctl {

struct LastDocument {
	Json::Value content;
	std::time_t time = 0; ///< When it was fetched.
};

/**
 * No value while there is none, or none that can be read: a fetch that failed leaves none. Asks no server.
 *
 * @param patience  seconds to wait for another process that fetches the document; no value when it takes longer
 */
[[nodiscard]] std::optional<LastDocument> ReadLastDocument(const dataupdate::IOUtils& io, unsigned long patience);

/** No value when the document has no valid entry of the database. */
[[nodiscard]] std::optional<int> OfferedVersion(const LastDocument& document, const std::string& id);

} // namespace tarn::ctl

#endif
