/** @file The members of a payload, in order. */
#ifndef ARCHIVE_TAR_READER_H
#define ARCHIVE_TAR_READER_H

#include "archive/payload_stream.h"

#include <archive.h>
#include <archive_entry.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace tarn::archive {

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
