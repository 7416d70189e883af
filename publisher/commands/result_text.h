/** @file What was published, for people and for programs. */
#ifndef PUBLISHER_COMMANDS_RESULT_TEXT_H
#define PUBLISHER_COMMANDS_RESULT_TEXT_H

#include "publisher/releases/publish.h"
#include "publisher/releases/withdraw.h"
#include "publisher/repository/publish_options.h"

#include <ostream>

namespace tarn::publisher {

/** @param json  whether a JSON object is printed instead of sentences */
void PrintPublished(const PublishOptions& options, const PublishResult& result, bool json, std::ostream& out);
void PrintWithdrawn(const PublishOptions& options, const WithdrawResult& result, bool json, std::ostream& out);

} // namespace tarn::publisher

#endif
