/** @file What is remembered of a version that a check of this machine refused. */
#ifndef HOST_LIBRARY_REJECTION_H
#define HOST_LIBRARY_REJECTION_H

#include "host/library/services.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::ctl {

struct Rejection {
	int version = -1;
	std::int64_t time = 0; ///< In seconds since 1970.
	std::string message;   ///< The library's, which names the hook and its sentence.
};

std::string RejectionPath(const std::string& id);

/** The newest refusal; no value when there is none, or none that can be read. */
std::optional<Rejection> ReadRejection(const std::string& id);

/**
 * Remembers a failure if it is a check's refusal, so that no update tries the version again by itself. A record that
 * cannot be written is told to the system log only: the version is then tried again.
 *
 * @param message  the library's
 */
void RememberRejection(const std::string& id, int version, const std::string& message);

/** Throws the remembered refusal of a version as the library threw it. */
void RequireNotRejected(const std::string& id, int version);

/**
 * What can be done about files of two versions that a refused version was going to replace, as a sentence behind
 * another one; empty when the files are of one version.
 */
[[nodiscard]] std::string WayOutOfRefusal(const Services& services, const std::string& id);

/** Forgets what was refused once that or a later version is installed. */
void ForgetRejection(const std::string& id, int installed_version);

} // namespace tarn::ctl

#endif
