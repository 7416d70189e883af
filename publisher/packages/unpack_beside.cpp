#include "publisher/packages/unpack_beside.h"

#include "archive/members.h"
#include "archive/payload.h"
#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace tarn::publisher {

namespace {

constexpr unsigned kExecutableBits = 0111;
constexpr std::size_t kCopyBytes = std::size_t{1} << 20U;

bool IsExecutable(unsigned mode) {
	return (mode & kExecutableBits) != 0;
}

/** A file of the earlier tree, compared with a member while that is read. */
class Counterpart {
public:
	Counterpart(const std::string& path, const archive::Member& member)
	    : file_(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)) {
		struct stat status {};
		is_same_ = file_ && fstat(file_.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
		           static_cast<std::uint64_t>(status.st_size) == member.size &&
		           IsExecutable(status.st_mode) == IsExecutable(member.mode);
	}

	/** Whether all that was read so far is the same. */
	bool IsSame() const { return is_same_; }
	/** Takes note of the next bytes; returns IsSame(). */
	bool Compare(std::string_view block) {
		buffer_.resize(std::max(buffer_.size(), block.size()));
		is_same_ = ReadFullyAt(file_.Get(), buffer_.data(), block.size(), same_bytes_) &&
		           std::equal(block.begin(), block.end(), buffer_.begin());
		same_bytes_ += is_same_ ? block.size() : 0;
		return is_same_;
	}
	/** Writes what was the same before the first difference. */
	void CopyBeginning(int output) {
		std::vector<char> part(kCopyBytes);
		for (std::uint64_t offset = 0; offset < same_bytes_;) {
			const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(part.size(), same_bytes_ - offset));
			Require(ReadFullyAt(file_.Get(), part.data(), size, offset), "became shorter while it was read");
			WriteFully(output, part.data(), size, "its content");
			offset += size;
		}
	}

private:
	UniqueFd file_;
	bool is_same_ = false;
	std::uint64_t same_bytes_ = 0;
	std::vector<char> buffer_;
};

archive::MemberPath Below(const std::string& directory, const archive::MemberPath& path) {
	archive::MemberPath whole = {directory};
	whole.insert(whole.end(), path.begin(), path.end());
	return whole;
}

/** The steps of UnpackBeside(). */
class Unpacking {
public:
	Unpacking(const std::string& root, std::string target, std::string earlier)
	    : root_path_(root),
	      target_(std::move(target)),
	      earlier_(std::move(earlier)),
	      root_(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
	      writer_(root_.Get()) {
		if (!root_) {
			ThrowErrno("cannot be unpacked into " + root);
		}
		writer_.MakeDirectory({target_});
	}

	void Unpack(archive::TarReader& reader, const archive::Member& member) {
		Require(member.kind == archive::MemberKind::kFile, "is no regular file");
		const archive::MemberPath name = archive::ParseMemberName(member.name);
		Counterpart counterpart(root_path_ + "/" + earlier_ + "/" + archive::Joined(name), member);
		UniqueFd output;
		if (!counterpart.IsSame()) {
			output = Create(name, member);
		}
		for (std::string_view block = reader.NextContent(); !block.empty(); block = reader.NextContent()) {
			if (!output && !counterpart.Compare(block)) {
				output = Create(name, member);
				counterpart.CopyBeginning(output.Get());
			}
			if (output) {
				WriteFully(output.Get(), block.data(), block.size(), "its content");
			}
		}
		if (!output) {
			writer_.MakeHardLink(Below(target_, name), Below(earlier_, name));
		} else if (!output.Close()) {
			ThrowErrno("cannot write its content");
		}
	}

private:
	UniqueFd Create(const archive::MemberPath& name, const archive::Member& member) {
		return writer_.CreateFile(Below(target_, name), IsExecutable(member.mode));
	}

	std::string root_path_;
	std::string target_;
	std::string earlier_;
	UniqueFd root_;
	archive::BeneathWriter writer_;
};

} // namespace

void UnpackBeside(const archive::ArchiveFile& package, const std::string& root, const std::string& target,
    const std::string& earlier) {
	const archive::ArchiveHead& head = package.Head();
	archive::PayloadStream stream(package, head.unpacked_size +
	                                           head.entry_count * archive::TarReader::kMaxOverheadPerMember +
	                                           archive::TarReader::kMaxOverheadAtEnd);
	archive::TarReader reader(stream);
	Unpacking unpacking(root, target, earlier);
	archive::Member member;
	while (reader.Next(member)) {
		try {
			unpacking.Unpack(reader, member);
		} catch (const Error& error) {
			throw Error("member \"" + Printable(member.name) + "\" " + error.what());
		}
	}
}

} // namespace tarn::publisher
