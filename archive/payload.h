/** @file An archive's payload, decompressed in a thread of its own, and its members in order. */
#ifndef ARCHIVE_PAYLOAD_H
#define ARCHIVE_PAYLOAD_H

#include "archive/file.h"
#include "base/mutex.h"

#include <archive.h>
#include <archive_entry.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tarn::archive {

/**
 * A bounded ring of blocks between one thread that fills them and one that uses them, in place and without a copy.
 * Either side can leave early: the filler with an error, which the user gets after the blocks before it; the user by
 * Stop(), which the filler gets as a null block.
 */
class BlockQueue {
public:
	/** @param block_size  the size of each block; memory for a block is taken when it is used first */
	explicit BlockQueue(std::size_t block_size) : block_size_(block_size) {}

	/** The filler: an empty block to fill; null when the user has left. */
	[[nodiscard]] char* Acquire();
	/** The filler: hands over the acquired block's first bytes. */
	void Commit(std::size_t size);
	/** The filler: no more blocks; with an error when it gave up. */
	void Finish(std::exception_ptr error);

	/** The user: gives back the block of the call before and waits for the next; empty at the end. */
	[[nodiscard]] std::string_view Next();
	/** The user: wants no more. */
	void Stop();

private:
	static constexpr std::size_t kBlocks = 4;

	struct Block {
		std::vector<char> bytes;
		std::size_t size = 0;
	};

	const std::size_t block_size_;
	Mutex mutex_;
	std::condition_variable_any changed_;
	std::array<Block, kBlocks> blocks_ TARN_GUARDED_BY(mutex_);
	std::size_t filled_ TARN_GUARDED_BY(mutex_) = 0;   // blocks handed over so far
	std::size_t released_ TARN_GUARDED_BY(mutex_) = 0; // blocks given back so far
	bool in_use_ TARN_GUARDED_BY(mutex_) = false;
	bool finished_ TARN_GUARDED_BY(mutex_) = false;
	bool stopped_ TARN_GUARDED_BY(mutex_) = false;
	std::exception_ptr error_ TARN_GUARDED_BY(mutex_);
};

/**
 * The payload's tar as a stream of blocks. Decompressing runs in a thread of its own, and so does reading and checking
 * more than one chunk: each costs as much as writing the files does.
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
	static constexpr std::size_t kBlockSize = 256U << 10U;

	BlockQueue queue_{kBlockSize};
	std::vector<std::thread> decoder_; // one
};

enum class MemberKind { kFile, kDirectory, kSymlink, kHardLink, kOther };

/** One member of the tar as it is written there, before any rule is applied. */
struct Member {
	std::string name;
	MemberKind kind = MemberKind::kOther;
	unsigned mode = 0;
	std::uint64_t size = 0;
	std::string link; // target of either kind of link
};

/** Reads the members of a payload in order. */
class TarReader {
public:
	/** Everything that a member may take in the tar beside its content: headers, long names, padding. */
	static constexpr std::uint64_t kMaxOverheadPerMember = 16U << 10U;
	/** What the end of a tar may take. */
	static constexpr std::uint64_t kMaxOverheadAtEnd = 1U << 20U;

	/** @param stream  outlives the reader */
	explicit TarReader(PayloadStream& stream);
	TarReader(const TarReader&) = delete;
	TarReader& operator=(const TarReader&) = delete;
	~TarReader() = default;

	/** Reads the next member's head; false at the end. Throws Error. */
	[[nodiscard]] bool Next(Member& member);
	/** The next piece of the current file's content, valid until the next call; empty at its end. */
	[[nodiscard]] std::string_view NextContent();

private:
	struct ReadDeleter {
		void operator()(::archive* reader) const { archive_read_free(reader); }
	};

	static la_ssize_t Feed(::archive* reader, void* self, const void** block);
	[[noreturn]] void Fail();

	PayloadStream& stream_;
	std::exception_ptr error_; // what the stream threw, carried past libarchive
	std::uint64_t position_ = 0;
	std::unique_ptr<::archive, ReadDeleter> reader_;
};

} // namespace tarn::archive

#endif
