#include "archive/payload.h"

#include "base/error.h"
#include "base/parallel.h"
#include "base/text.h"

#include <zstd.h>

#include <cerrno>
#include <utility>

namespace tarn::archive {

namespace {

struct DecoderDeleter {
	void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

/** Decompresses chunk after chunk into the queue's blocks. */
class Decoder {
public:
	Decoder(BlockQueue& queue, std::size_t block_size, std::uint64_t max_output)
	    : queue_(queue), block_size_(block_size), left_(max_output), context_(ZSTD_createDCtx()) {
		if (!context_ ||
		    ZSTD_isError(ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, kMaxWindowLog)) != 0) {
			throw Error("cannot start to decompress");
		}
	}

	/** False when nobody wants the rest. */
	bool Feed(std::string_view chunk) {
		ZSTD_inBuffer input = {chunk.data(), chunk.size(), 0};
		bool full = false;
		while (input.pos < input.size || (full && !frame_ended_)) {
			if (output_.dst == nullptr && !NewBlock()) {
				return false;
			}
			const std::size_t result = ZSTD_decompressStream(context_.get(), &output_, &input);
			if (ZSTD_isError(result) != 0) {
				throw Error(std::string("cannot be decompressed: ") + ZSTD_getErrorName(result));
			}
			frame_ended_ = result == 0;
			full = output_.pos == output_.size;
			if (full) {
				Flush();
			}
		}
		return true;
	}

	void End() {
		if (!frame_ended_) {
			throw Error("has a payload that ends in the middle");
		}
		if (output_.dst != nullptr) {
			Flush();
		}
	}

private:
	bool NewBlock() {
		char* block = queue_.Acquire();
		output_ = {block, block_size_, 0};
		return block != nullptr;
	}

	void Flush() {
		if (output_.pos > left_) {
			throw Error("unpacks to more than its head declares");
		}
		left_ -= output_.pos;
		if (output_.pos > 0) {
			queue_.Commit(output_.pos);
		}
		output_ = {nullptr, 0, 0};
	}

	BlockQueue& queue_;
	const std::size_t block_size_;
	std::uint64_t left_;
	std::unique_ptr<ZSTD_DCtx, DecoderDeleter> context_;
	ZSTD_outBuffer output_ = {nullptr, 0, 0};
	bool frame_ended_ = false;
};

/** The checked chunks of an archive in order: of more than one, the next are read while one is used. */
class Chunks {
public:
	explicit Chunks(const ArchiveFile& archive)
	    : archive_(archive), reader_(StartThreads(archive.Head().ChunkCount() > 1 ? 1 : 0, [this] { ReadAll(); })) {}
	~Chunks() {
		queue_.Stop();
		std::for_each(reader_.begin(), reader_.end(), [](std::thread& thread) { thread.join(); });
	}
	Chunks(const Chunks&) = delete;
	Chunks& operator=(const Chunks&) = delete;

	/** The next chunk, valid until the next call; empty at the end. Throws Error. */
	std::string_view Next() {
		const bool has_reader = !reader_.empty(); // Else no thread is needed, or to be had.
		return has_reader || ReadNext() ? queue_.Next() : std::string_view();
	}

private:
	/** False at the end, and when nobody wants more. */
	bool ReadNext() {
		char* const block = next_ < archive_.Head().ChunkCount() ? queue_.Acquire() : nullptr;
		if (block != nullptr) {
			queue_.Commit(archive_.ReadChunk(next_++, block));
		}
		return block != nullptr;
	}

	void ReadAll() {
		try {
			while (ReadNext()) {
			}
			queue_.Finish(nullptr);
		} catch (...) {
			queue_.Finish(std::current_exception());
		}
	}

	const ArchiveFile& archive_;
	BlockQueue queue_{kChunkSize};
	std::uint64_t next_ = 0;
	std::vector<std::thread> reader_;
};

void DecodeAll(const ArchiveFile& archive, BlockQueue& queue, std::size_t block_size, std::uint64_t max_output) {
	try {
		Decoder decoder(queue, block_size, max_output);
		Chunks chunks(archive);
		for (std::string_view chunk = chunks.Next(); !chunk.empty() && decoder.Feed(chunk);) {
			chunk = chunks.Next();
		}
		decoder.End();
		queue.Finish(nullptr);
	} catch (...) {
		queue.Finish(std::current_exception());
	}
}

MemberKind KindOf(archive_entry* entry) {
	if (archive_entry_hardlink(entry) != nullptr) {
		return MemberKind::kHardLink;
	}
	switch (archive_entry_filetype(entry)) {
	case AE_IFREG:
		return MemberKind::kFile;
	case AE_IFDIR:
		return MemberKind::kDirectory;
	case AE_IFLNK:
		return MemberKind::kSymlink;
	default:
		return MemberKind::kOther;
	}
}

std::string Text(const char* text) {
	return text == nullptr ? std::string() : std::string(text);
}

} // namespace

char* BlockQueue::Acquire() {
	const MutexLock lock(mutex_);
	while (!stopped_ && filled_ - released_ == kBlocks) {
		changed_.wait(mutex_);
	}
	std::vector<char>& bytes = blocks_[filled_ % kBlocks].bytes;
	bytes.resize(block_size_);
	return stopped_ ? nullptr : bytes.data();
}

void BlockQueue::Commit(std::size_t size) {
	const MutexLock lock(mutex_);
	blocks_[filled_ % kBlocks].size = size;
	++filled_;
	changed_.notify_all();
}

void BlockQueue::Finish(std::exception_ptr error) {
	const MutexLock lock(mutex_);
	finished_ = true;
	error_ = std::move(error);
	changed_.notify_all();
}

std::string_view BlockQueue::Next() {
	const MutexLock lock(mutex_);
	if (in_use_) {
		in_use_ = false;
		++released_;
		changed_.notify_all();
	}
	while (!finished_ && filled_ == released_) {
		changed_.wait(mutex_);
	}
	if (filled_ > released_) {
		in_use_ = true;
		const Block& block = blocks_[released_ % kBlocks];
		return {block.bytes.data(), block.size};
	}
	if (error_) {
		std::rethrow_exception(error_);
	}
	return {};
}

void BlockQueue::Stop() {
	const MutexLock lock(mutex_);
	stopped_ = true;
	changed_.notify_all();
}

PayloadStream::PayloadStream(const ArchiveFile& archive, std::uint64_t max_output)
    : decoder_(StartThreads(1, [this, &archive, max_output] { DecodeAll(archive, queue_, kBlockSize, max_output); })) {
	Require(!decoder_.empty(), "cannot start to decompress");
}

PayloadStream::~PayloadStream() {
	queue_.Stop();
	decoder_.front().join();
}

TarReader::TarReader(PayloadStream& stream) : stream_(stream), reader_(archive_read_new()) {
	if (!reader_) {
		throw Error("cannot be read: no memory");
	}
	if (archive_read_support_format_tar(reader_.get()) != ARCHIVE_OK ||
	    archive_read_open(reader_.get(), this, nullptr, Feed, nullptr) != ARCHIVE_OK) {
		Fail();
	}
}

la_ssize_t TarReader::Feed(::archive* reader, void* self, const void** block) {
	auto* own = static_cast<TarReader*>(self);
	try {
		const std::string_view bytes = own->stream_.Next();
		*block = bytes.data();
		return static_cast<la_ssize_t>(bytes.size());
	} catch (...) {
		own->error_ = std::current_exception();
		archive_set_error(reader, EIO, "the payload cannot be read");
		return -1;
	}
}

void TarReader::Fail() {
	if (error_) {
		std::rethrow_exception(error_);
	}
	throw Error("is no readable tar: " + Printable(Text(archive_error_string(reader_.get()))));
}

bool TarReader::Next(Member& member) {
	archive_entry* entry = nullptr;
	const int result = archive_read_next_header(reader_.get(), &entry);
	if (result == ARCHIVE_EOF) {
		return false;
	}
	if (result != ARCHIVE_OK) {
		Fail();
	}
	// How the extended form's names are read depends on the locale, and nobody here wants the attributes it carries.
	if (archive_format(reader_.get()) == ARCHIVE_FORMAT_TAR_PAX_INTERCHANGE) {
		throw Error("holds a tar in the extended (pax) form");
	}
	member.name = Text(archive_entry_pathname(entry));
	member.kind = KindOf(entry);
	member.mode = archive_entry_perm(entry);
	member.size = member.kind == MemberKind::kFile ? static_cast<std::uint64_t>(archive_entry_size(entry)) : 0;
	member.link =
	    Text(member.kind == MemberKind::kHardLink ? archive_entry_hardlink(entry) : archive_entry_symlink(entry));
	position_ = 0;
	return true;
}

std::string_view TarReader::NextContent() {
	const void* block = nullptr;
	std::size_t size = 0;
	la_int64_t offset = 0;
	const int result = archive_read_data_block(reader_.get(), &block, &size, &offset);
	if (result == ARCHIVE_EOF) {
		return {};
	}
	if (result != ARCHIVE_OK) {
		Fail();
	}
	if (static_cast<std::uint64_t>(offset) != position_) {
		throw Error("holds a sparse member");
	}
	position_ += size;
	return {static_cast<const char*>(block), size};
}

} // namespace tarn::archive
