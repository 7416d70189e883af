#include "archive/tar_reader.h"

#include "base/error.h"
#include "base/text.h"

#include <cerrno>

namespace tarn::archive {

namespace {

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
