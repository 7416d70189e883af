#include "host/library/download_failure.h"

#include "base/text.h"

#include <tarncore/tarncore.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

// An appliance's own platform may lack what guards downloads on stock Linux.
#pragma weak TLIBCDownloadFailureGet

namespace tarn::ctl {

namespace {

struct Hint {
	int error;
	const char* said; ///< What the client's words contain; empty for any.
	const char* text;
};

/** The client has one exit status for all that can go wrong between it and the server, so its words tell more. */
constexpr int kUnreached = TLIBC_ERR_EXIT + 4;

constexpr char kMissingHint[] =
    "the server answered with an error: check that it offers this file, and ask it again by "
    "\"tarndbudctl refresh\", as a release may have been withdrawn";

/** Of several that fit, the first counts. */
constexpr Hint kHints[] = {
    {TLIBC_ERR_DOWNLOAD + TLIBC_DOWNLOAD_TOO_LARGE, "",
        "check what the server, or something on the way to it, sends there"},
    {TLIBC_ERR_DOWNLOAD + TLIBC_DOWNLOAD_NO_SPACE, "", "free some space"},
    {TLIBC_ERR_DOWNLOAD + TLIBC_DOWNLOAD_TOO_SLOW, "",
        "check the network and the server, or set another lowest_rate in /usr/tarn/etc/downloads.conf"},
    {TLIBC_ERR_DOWNLOAD + TLIBC_DOWNLOAD_TOO_LONG, "",
        "check the network and the server, or set another deadline in /usr/tarn/etc/downloads.conf"},
    {TLIBC_ERR_EXIT + 1, "", "wget refuses it: check that the link begins with http:// or https://"},
    {TLIBC_ERR_EXIT + 2, "", "wget refuses its settings: correct /usr/tarn/etc/data_update/wgetrc"},
    {TLIBC_ERR_EXIT + 3, "", "wget could not write the file: check the free space and the file system"},
    {kUnreached, "unable to resolve", "the name of the host is not known: check it, and the name servers"},
    {kUnreached, "Connection refused", "nothing listens at that port: check the host, the port and the server"},
    {kUnreached, "Proxy tunneling failed", "the proxy refuses to pass the connection on: check the proxy's settings"},
    {kUnreached, "SSL connection", "what answers speaks no TLS: check the scheme, http or https, and the port"},
    {kUnreached, "timed out", "the server does not answer: check the network, the host, the port and firewalls"},
    {kUnreached, "No route to host", "there is no way to the host: check the network and firewalls"},
    {kUnreached, "Network is unreachable", "there is no way to the host: check the network"},
    {kUnreached, "",
        "the server cannot be reached or breaks off: check the network, the proxy, the server's name and the scheme"},
    {TLIBC_ERR_EXIT + 5, "", "the server's certificate is not trusted: check the clock and the certificates"},
    {TLIBC_ERR_EXIT + 6, "", "the server or the proxy wants a password: check the proxy's settings"},
    {TLIBC_ERR_EXIT + 7, "", "what answered speaks no HTTP: check the scheme, the host and the port"},
    {TLIBC_ERR_EXIT + 8, "ERROR 404", kMissingHint},
    {TLIBC_ERR_EXIT + 8, "ERROR 403", kMissingHint}, // What some stores answer for what they do not have.
    {TLIBC_ERR_EXIT + 8, "", "the server answered with an error: check that it offers this file"},
    {ENOENT, "", "/usr/bin/wget could not be started: install wget"},
    {EACCES, "", "/usr/bin/wget could not be started: check its permissions"},
};

/** Null for an error of no known kind. */
const char* FindHint(int error, const std::string& said) {
	const auto* hint = std::find_if(std::begin(kHints), std::end(kHints), [&](const Hint& candidate) {
		return candidate.error == error && said.find(candidate.said) != std::string::npos;
	});
	return hint == std::end(kHints) ? nullptr : hint->text;
}

} // namespace

std::string DescribeClientFailure(int platform_error, const std::string& complaint) {
	const char* hint = FindHint(platform_error, complaint);
	const bool has_said = (platform_error & TLIBC_ERR_EXIT) != 0 && !complaint.empty();
	return std::string(hint == nullptr ? "check the network, the server and that wget is installed" : hint) +
	       (has_said ? " (wget: " + WithoutEnd(complaint, ". ") + ")" : "");
}

std::string DescribeDownloadFailure(int platform_error) {
	const std::string reason = TLIBCDownloadFailureGet == nullptr ? "" : TLIBCDownloadFailureGet();
	if ((platform_error & TLIBC_ERR_DOWNLOAD) == 0) {
		return DescribeClientFailure(platform_error, reason);
	}
	const char* hint = FindHint(platform_error, "");
	return (reason.empty() ? "" : reason + ", and ") +
	       "the download was ended: " + (hint == nullptr ? "see the system log" : hint);
}

} // namespace tarn::ctl
