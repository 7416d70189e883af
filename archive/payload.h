/** @file An archive's payload, decompressed by several threads, and its members in order. */
#ifndef ARCHIVE_PAYLOAD_H
#define ARCHIVE_PAYLOAD_H

#include "archive/file.h"
#include "base/handle.h"
#include "base/mutex.h"

#include <archive.h>
#include <archive_entry.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tarn::archive {

/**
 * The payload's tar, frame after frame. Threads decompress the next frames while one is used; without threads, which
 * a single frame does not need and a system may refuse, the user decompresses. In memory are at most the frame in use
 * and, for each thread, one frame with its packed bytes.
 */
class PayloadStream {
public:
	/** The archive outlives the stream. Throws Error when it unpacks to more than max_output bytes. */
	PayloadStream(const ArchiveFile& archive, std::uint64_t max_output);
	PayloadStream(const PayloadStream&) = delete;
	PayloadStream& operator=(const PayloadStream&) = delete;
	~PayloadStream();

	/** The next frame's bytes, valid until the next call; empty at the end. Throws Error. */
	[[nodiscard]] std::string_view Next();

private:
	/** Frames lie in slots in turn: the frame number modulo the number of slots. */
	struct Slot {
		std::string unpacked;
		std::exception_ptr error;
		bool is_ready = false;
	};

	void Work();
	/** The next frame to decompress, when its slot is free; no value when there is no more to do. */
	[[nodiscard]] std::optional<std::size_t> Claim();
	/** @param packed  room for the packed bytes, used again by each thread */
	void Fill(std::size_t frame, Slot& slot, std::string& packed) const;

	const ArchiveFile& archive_;
	Mutex mutex_;
	std::condition_variable_any changed_;
	std::size_t claimed_ TARN_GUARDED_BY(mutex_) = 0;  // frames that threads have begun
	std::size_t released_ TARN_GUARDED_BY(mutex_) = 0; // frames that the user needs no longer
	bool stopped_ TARN_GUARDED_BY(mutex_) = false;
	std::size_t used_ = 0; // frames handed out
	// Beside the mutex's marks, a slot is its thread's until it is ready, and the user's until it is released.
	std::vector<Slot> slots_;
	std::vector<std::thread> threads_;
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

	/** Reads the next member's head; false at the end. Throws Error. */
	[[nodiscard]] bool Next(Member& member);
	/** The next piece of the current file's content, valid until the next call; empty at its end. */
	[[nodiscard]] std::string_view NextContent();

private:
	static la_ssize_t Feed(::archive* reader, void* self, const void** block);
	[[noreturn]] void Fail();

	PayloadStream& stream_;
	std::exception_ptr error_; // what the stream threw, carried past libarchive
	std::uint64_t position_ = 0;
	Handle<::archive, archive_read_free> reader_;
};

} // namespace tarn::archive

#endif
