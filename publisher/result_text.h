/** @file What was published, for people and for programs. */
#ifndef PUBLISHER_RESULT_TEXT_H
#define PUBLISHER_RESULT_TEXT_H

#include "publisher/publish.h"
#include "publisher/withdraw.h"

#include <ostream>

namespace tarn::publisher {

/** @param json  whether a JSON object is printed instead of sentences */
void PrintPublished(const PublishOptions& options, const PublishResult& result, bool json, std::ostream& out);
void PrintWithdrawn(const PublishOptions& options, const WithdrawResult& result, bool json, std::ostream& out);

} // namespace tarn::publisher

#endif
