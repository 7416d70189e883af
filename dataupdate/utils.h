/** @file Files, directories, JSON, downloads and digests: the library's seam to the file system and the network. */
#ifndef DATAUPDATE_UTILS_H
#define DATAUPDATE_UTILS_H

#include "dataupdate/export.h"

#include <boost/format.hpp>
#include <json/value.h>

#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <utility>

namespace tarn::dataupdate {

/**
 * Every file, directory, JSON and download operation of the library. Stateless, so any number of instances is as good
 * as one; virtual, so that a test can put a double in its place. Failures are UpdateError; no operation takes a lock.
 */
class TARNDBUD_EXPORT IOUtils {
public:
	virtual ~IOUtils();

	/**
	 * Bytes of a regular file, or of all regular files below a directory; 0 for anything else and for a missing path.
	 * Throws "Fail to get size on <path>".
	 */
	virtual std::uintmax_t GetSize(const std::string& path) const;

	/**
	 * Space of the file system that holds a directory: bytes available to unprivileged users, and capacity in bytes.
	 * Throws "Invalid filesystem to testing space" when the path is no directory, "Fail to get available space" when
	 * the file system does not answer.
	 */
	virtual std::pair<std::uintmax_t, std::uintmax_t> GetFsSize(const std::string& path) const;

	/**
	 * A JSON file, parsed whole; comments are tolerated. Throws "File not exist: <path>" with code kFileNotExist,
	 * "Fail to read: <path>", and "Fail to decode: <path>" for malformed and for too deeply nested documents.
	 */
	virtual Json::Value ReadJson(const std::string& path) const;

	/**
	 * Writes a value straight into the file, indented with tabs; missing parents are created. Throws "Fail to create
	 * parent folder: <path>", also for a path without a directory ("name"; "./name" has one), and "Fail to write:
	 * <path>". A failure while writing leaves a truncated file: readers take that for no file, and the next write
	 * replaces it.
	 */
	virtual void WriteJson(const std::string& path, const Json::Value& value) const;

	/**
	 * Whether the file's last modification (not its creation) lies strictly more than so many seconds in the past.
	 * Throws "Failed to get attribute of <path>, errno=<number>".
	 */
	virtual bool FileCreateOver(const std::string& path, int seconds) const;

	/**
	 * Removes a path and everything below it. A missing path, also below what is a file, is no error. Throws "Fail to
	 * remove all: <path>".
	 */
	virtual void RmRf(const std::string& path) const;

	/**
	 * Copies a file whole, a link as a link and a directory as an empty directory, replacing what is at the
	 * destination (a non-empty directory there is an error); missing parents are created. The copy shares the
	 * source's extents where the file system can, and is not synced. Throws "Fail to copy from <src> to <dst>: <why>".
	 */
	virtual void CopyFile(const std::string& src, const std::string& dst) const;

	/**
	 * Fetches a URL into a file with /usr/bin/wget, which tries three times. Throws "Fail to wget url: <url>", and the
	 * output file is then gone, even one that existed before, but never a directory; also TarnGetUserAgent()'s error
	 * and Boost's filesystem error when the output file cannot be removed. A URL that begins with "-" fails without
	 * running wget, which would take it for an option. With a source (download_source.h) wget is not run.
	 */
	virtual void Download(const std::string& output_path, const std::string& url) const;

	/** Creates a directory with all missing parents. Throws "Fail to create dir <path>". */
	virtual void TarnMkdir(const std::string& path) const;

	/**
	 * Calls back with the path of every entry of a directory, in no order; recursively, a directory comes after its
	 * contents. Links are not followed. Throws "failed to read file stat: <dir>", "not a directory: <dir>", or the
	 * system's text for an error of reading it; what the callback throws passes through.
	 */
	virtual void IterateDirectory(
	    const std::string& dir, const std::function<void(const std::string&)>& callback, bool recursive) const;
};

/** Brings everything written to the file system that holds a path to its disk. Throws "Fail to sync <path>: <why>". */
TARNDBUD_EXPORT void SyncFileSystem(const std::string& path);

/** The name with every '/' and '.' replaced by '_': a relative path as one flat file name. */
TARNDBUD_EXPORT std::string FlatFileName(const std::string& name);

/** A formatter that never throws, whatever the format and the number of arguments. */
TARNDBUD_EXPORT boost::format NoexceptFormat(const std::string& format);

/** This device's HTTP user agent for a category of requests. Throws "Fail to generate user agent string". */
TARNDBUD_EXPORT std::string TarnGetUserAgent(const std::string& category);

/**
 * The SHA-384 digest, in 96 lower-case hexadecimal digits, of what the stream reports as available from its current
 * position on; of nothing when the stream has failed already. Throws "Fail during reading for SHA digest".
 *
 * A std::fstream misreports files with a multiple of 4 GiB left to read; use DigestStream for files.
 */
TARNDBUD_EXPORT std::string GetSha384(std::istream& in);

} // namespace tarn::dataupdate

#endif
