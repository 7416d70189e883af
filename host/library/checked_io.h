/** @file Reads documents that are too large, or are being written, with care. */
#ifndef HOST_LIBRARY_CHECKED_IO_H
#define HOST_LIBRARY_CHECKED_IO_H

#include "dataupdate/utils.h"

#include <cstdint>
#include <ctime>
#include <string>

namespace tarn::ctl {

/** The largest document of a server that is parsed; a parsed one takes several times its size of memory. */
constexpr std::uintmax_t kLargestDocument = 2UL * 1024 * 1024;

/**
 * Treats a server's document that is too large like one that cannot be decoded. Records and the service's settings are
 * written in place, and are no documents for a moment; they are read again until they are, as long as their last change
 * is new. The library reads the settings of databases without it, so those are only replaced by whole files.
 */
class CheckedIO : public dataupdate::IOUtils {
public:
	Json::Value ReadJson(const std::string& path) const override;
	/** Also throws "Fail to write: <path>" when what is written cannot be read again, as on a full disk. */
	void WriteJson(const std::string& path, const Json::Value& value) const override;
};

/** Whether a file's last change lies less than two seconds from now: longer than a writer takes from its first byte to
 * its last, and short for a file that was cut off for good. */
bool IsNew(const timespec& changed, const timespec& now);

} // namespace tarn::ctl

#endif
