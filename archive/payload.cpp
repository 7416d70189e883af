#include "archive/payload.h"

#include "base/error.h"
#include "base/parallel.h"
#include "base/text.h"

#include <algorithm>
#include <cerrno>
#include <numeric>

namespace tarn::archive {

namespace {

constexpr std::size_t kMaxThreads = 2; // Each takes up to 10 MiB, and more than two would wait for the disk.

std::size_t ThreadsFor(std::size_t frames) {
	return frames == 1 ? 0 : std::min({frames, kMaxThreads, std::size_t{Processors()}});
}

std::uint64_t UnpackedSize(const std::vector<Frame>& frames) {
	return std::accumulate(frames.begin(), frames.end(), std::uint64_t{0},
	    [](std::uint64_t sum, const Frame& frame) { return sum + frame.unpacked_size; });
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

PayloadStream::PayloadStream(const ArchiveFile& archive, std::uint64_t max_output)
    : archive_(archive), slots_(ThreadsFor(archive.Frames().size()) + 1) {
	Require(UnpackedSize(archive.Frames()) <= max_output, "unpacks to more than its head declares");
	threads_ = StartThreads(slots_.size() - 1, [this] { Work(); });
}

PayloadStream::~PayloadStream() {
	{
		const MutexLock lock(mutex_);
		stopped_ = true;
		changed_.notify_all();
	}
	std::for_each(threads_.begin(), threads_.end(), [](std::thread& thread) { thread.join(); });
}

std::string_view PayloadStream::Next() {
	const std::size_t frame = used_;
	if (frame == archive_.Frames().size()) {
		return {};
	}
	Slot& slot = slots_[frame % slots_.size()];
	if (threads_.empty()) {
		std::string packed;
		Fill(frame, slot, packed);
	} else {
		const MutexLock lock(mutex_);
		released_ = frame;
		changed_.notify_all();
		while (!slot.is_ready) {
			changed_.wait(mutex_);
		}
		slot.is_ready = slot.error != nullptr; // An error stays.
	}
	if (slot.error) {
		std::rethrow_exception(slot.error);
	}
	++used_;
	return slot.unpacked;
}

void PayloadStream::Work() {
	std::string packed;
	while (const std::optional<std::size_t> frame = Claim()) {
		Slot& slot = slots_[*frame % slots_.size()];
		try {
			Fill(*frame, slot, packed);
		} catch (...) {
			slot.error = std::current_exception();
		}
		const MutexLock lock(mutex_);
		slot.is_ready = true;
		stopped_ = stopped_ || slot.error;
		changed_.notify_all();
	}
}

std::optional<std::size_t> PayloadStream::Claim() {
	const MutexLock lock(mutex_);
	while (!stopped_ && claimed_ < archive_.Frames().size() && claimed_ - released_ >= slots_.size()) {
		changed_.wait(mutex_);
	}
	return stopped_ || claimed_ == archive_.Frames().size() ? std::nullopt : std::optional(claimed_++);
}

void PayloadStream::Fill(std::size_t frame, Slot& slot, std::string& packed) const {
	const Frame& entry = archive_.Frames()[frame];
	archive_.ReadFrame(frame, packed);
	slot.unpacked.resize(entry.unpacked_size);
	Decompress(entry.codec, packed, slot.unpacked.data(), slot.unpacked.size());
}

TarReader::TarReader(PayloadStream& stream) : stream_(stream), reader_(archive_read_new()) {
	Require(reader_ != nullptr, "cannot be read: no memory");
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
	Require(
	    archive_format(reader_.get()) != ARCHIVE_FORMAT_TAR_PAX_INTERCHANGE, "holds a tar in the extended (pax) form");
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
	Require(static_cast<std::uint64_t>(offset) == position_, "holds a sparse member");
	position_ += size;
	return {static_cast<const char*>(block), size};
}

} // namespace tarn::archive
