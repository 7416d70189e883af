#include "kit/reader.h"

#include "base/file_io.h"
#include "base/sha2.h"
#include "kit/layout.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace tarn::kit {

namespace {

constexpr std::uint64_t kPieceSize = std::uint64_t{256} << 10U;

/** Links are followed: a kit is named by its administrator, and nothing but its packages' signatures makes it good. */
UniqueFd Open(const std::string& path) {
	// O_NONBLOCK, because opening a FIFO would otherwise wait for a writer.
	UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	if (!fd) {
		ThrowErrno("cannot be opened");
	}
	return fd;
}

std::uint64_t SizeOf(int fd) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		ThrowErrno("has no size");
	}
	Require(S_ISREG(status.st_mode), "is no regular file");
	return static_cast<std::uint64_t>(status.st_size);
}

void RequireSize(std::uint64_t actual, std::uint64_t wanted) {
	if (actual != wanted) {
		throw DamagedKit((actual < wanted ? "is cut off: it has " : "is too long: it has ") + std::to_string(actual) +
		                 " of " + std::to_string(wanted) + " bytes");
	}
}

} // namespace

Reader::Reader(const std::string& path) : Reader(Open(path)) {}

Reader::Reader(UniqueFd fd) : fd_(std::move(fd)) {
	ReadTable();
	CheckHeaders();
}

void Reader::ReadTable() {
	const std::uint64_t file_size = SizeOf(fd_.Get());
	Require(file_size >= kBlockSize, "is no kit");
	const std::string header = ReadAt(0, kBlockSize);
	const std::uint64_t size = SizeInHeader(header);
	Require(size <= kMaxTableSize && header == MakeHeader(kTableName, size), "is no kit");
	if (file_size < kBlockSize + size) {
		throw DamagedKit("is cut off: it ends within its table");
	}
	table_ = ReadAt(kBlockSize, size);
	parts_ = ParseTable(table_);
	std::vector<std::uint64_t> sizes = {size};
	std::transform(parts_.begin(), parts_.end(), std::back_inserter(sizes), [](const Part& part) { return part.size; });
	offsets_ = OffsetsOf(sizes);
	RequireSize(file_size, offsets_.back());
}

/** Other tar programs read the headers, so they must tell of the same members as the table does. */
void Reader::CheckHeaders() const {
	for (std::size_t at = 0; at < parts_.size(); ++at) {
		const std::string name = NameOf(parts_[at]);
		if (ReadAt(offsets_[at + 1] - kBlockSize, kBlockSize) != MakeHeader(name, parts_[at].size)) {
			throw DamagedKit("is damaged: its table and the header of " + name + " differ");
		}
	}
}

const Part* Reader::Find(Kind kind, const std::string& id, int data_version) const {
	const auto part = std::find_if(parts_.begin(), parts_.end(), [&](const Part& candidate) {
		return candidate.kind == kind && candidate.id == id && candidate.data_version == data_version;
	});
	return part == parts_.end() ? nullptr : &*part;
}

std::string Reader::ReadDocument() const {
	std::string text;
	Read(parts_.front(), [&text](std::string_view bytes) { text += bytes; });
	return text;
}

void Reader::Read(const Part& part, const Sink& sink) const {
	const auto at = static_cast<std::size_t>(&part - parts_.data());
	Sha256 digest;
	for (std::uint64_t done = 0; done < part.size;) {
		const std::string piece = ReadAt(offsets_.at(at + 1) + done, std::min(kPieceSize, part.size - done));
		digest.Add(piece);
		sink(piece);
		done += piece.size();
	}
	if (digest.FinishHex() != part.sha256) {
		throw DamagedKit("is damaged: " + NameOf(part) + " is not what the table says");
	}
}

std::string Reader::ReadAt(std::uint64_t offset, std::uint64_t size) const {
	std::string bytes(static_cast<std::size_t>(size), '\0');
	const ssize_t count = ReadAllAt(fd_.Get(), bytes.data(), bytes.size(), offset);
	if (count < 0) {
		ThrowErrno("cannot be read");
	}
	Require(static_cast<std::uint64_t>(count) == size, "became shorter while it was read");
	return bytes;
}

} // namespace tarn::kit
