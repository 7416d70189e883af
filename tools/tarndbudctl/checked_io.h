/** @file Reads documents that are too large, or are being written, with care. */
#ifndef TARNDBUDCTL_CHECKED_IO_H
#define TARNDBUDCTL_CHECKED_IO_H

#include <dataupdate/utils.h>

#include <cstdint>
#include <string>

namespace tarn::ctl {

/** The largest document of a server that is parsed; a parsed one takes several times its size of memory. */
constexpr uintmax_t kLargestDocument = 2UL * 1024 * 1024;

/**
 * Treats a server's document that is too large like one that cannot be decoded. Records and settings are written in
 * place, and are no documents for a moment; they are read again until they are, as long as their last change is new.
 */
class CheckedIO : public dataupdate::IOUtils {
public:
	Json::Value ReadJson(const std::string& path) const override;
};

} // namespace tarn::ctl

#endif
