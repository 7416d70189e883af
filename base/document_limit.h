/** @file How large a server's document may be, on which its writers and its readers have to agree. */
#ifndef BASE_DOCUMENT_LIMIT_H
#define BASE_DOCUMENT_LIMIT_H

#include <cstdint>

namespace tarn {

/** In bytes. A document that was parsed takes several times its size of a device's memory. */
constexpr std::uint64_t kLargestDocument = 2UL * 1024 * 1024;

} // namespace tarn

#endif
