/**
 * @file
 * Downloads that come from somewhere else than the network, for a host that has the files at hand.
 *
 * As long as a scope lives, IOUtils::Download() of this process asks its source for every URL, and starts no program;
 * a URL that the source does not have fails. What is fetched is checked as what is downloaded: a source is not trusted
 * any more than a server. Without a scope everything is downloaded.
 */
#ifndef DATAUPDATE_DOWNLOAD_SOURCE_H
#define DATAUPDATE_DOWNLOAD_SOURCE_H

#include "dataupdate/export.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tarn::dataupdate {

/** Where files come from. */
class TARNDBUD_EXPORT DownloadSource {
public:
	/** Takes the bytes of a file, one piece after the other. */
	using Sink = std::function<void(std::string_view bytes)>;

	DownloadSource() = default;
	DownloadSource(const DownloadSource&) = delete;
	DownloadSource& operator=(const DownloadSource&) = delete;
	virtual ~DownloadSource();

	/**
	 * Hands out the bytes that a URL stands for. Throws UpdateError when there are none, or they cannot be had to the
	 * end; what has been written of them is then removed. What the sink throws must pass through.
	 */
	virtual void Fetch(const std::string& url, const Sink& sink) const = 0;
};

/** Has downloads come from a source; one scope at a time, of the thread that downloads. */
class TARNDBUD_EXPORT DownloadSourceScope {
public:
	/** Shares the source. */
	explicit DownloadSourceScope(std::shared_ptr<const DownloadSource> source);
	~DownloadSourceScope();
	DownloadSourceScope(const DownloadSourceScope&) = delete;
	DownloadSourceScope& operator=(const DownloadSourceScope&) = delete;
};

} // namespace tarn::dataupdate

#endif
