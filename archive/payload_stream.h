/** @file An archive's payload, decompressed in a thread of its own. */
#ifndef ARCHIVE_PAYLOAD_STREAM_H
#define ARCHIVE_PAYLOAD_STREAM_H

#include "archive/block_queue.h"
#include "archive/file.h"

#include <cstdint>
#include <string_view>
#include <thread>

namespace tarn::archive {

/**
 * The payload's tar as a stream of blocks. Reading, checking and decompressing run in a thread of their own, because
 * they cost as much as writing the files does, and would otherwise double the time.
 */
class PayloadStream {
public:
	/**
	 * @param archive     outlives the stream
	 * @param max_output  more decompressed bytes than these are an error
	 */
	PayloadStream(const ArchiveFile& archive, std::uint64_t max_output);
	PayloadStream(const PayloadStream&) = delete;
	PayloadStream& operator=(const PayloadStream&) = delete;
	~PayloadStream();

	/** The next block, valid until the next call; empty at the end. Throws Error. */
	[[nodiscard]] std::string_view Next() { return queue_.Next(); }

private:
	BlockQueue queue_;
	std::thread decoder_;
};

} // namespace tarn::archive

#endif
