#include "archive/extractor.h"

#include "archive/members.h"
#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"

#include <set>

namespace tarn::archive {

namespace {

constexpr unsigned kExecutableBits = 0111;
constexpr unsigned kSpecialBits = 07000;

/** Counts entries and bytes against what the head declares. */
class Budget {
public:
	Budget(const ArchiveHead& head, const Limits& limits) : head_(head) {
		if (head.entry_count > limits.entries) {
			throw Error("declares " + std::to_string(head.entry_count) + " members; the limit is " +
			            std::to_string(limits.entries));
		}
		if (head.unpacked_size > limits.bytes) {
			throw Error("declares " + std::to_string(head.unpacked_size) + " bytes unpacked; the limit is " +
			            std::to_string(limits.bytes));
		}
	}

	std::uint64_t MaxTarSize() const {
		return head_.unpacked_size + head_.entry_count * TarReader::kMaxOverheadPerMember +
		       TarReader::kMaxOverheadAtEnd;
	}

	void Add(const Member& member) {
		Require(++entries_ <= head_.entry_count, "holds more members than its head declares");
		Require(member.size <= head_.unpacked_size - bytes_, "holds more bytes than its head declares");
		bytes_ += member.size;
	}

	// Fewer than declared means that the tar was cut before it was signed.
	void RequireUsedUp() const {
		Require(entries_ == head_.entry_count && bytes_ == head_.unpacked_size,
		    "holds fewer members or bytes than its head declares");
	}

private:
	const ArchiveHead& head_;
	std::uint64_t entries_ = 0;
	std::uint64_t bytes_ = 0;
};

template<typename Function>
void WalkMembers(const ArchiveFile& archive, const Limits& limits, const Function& function) {
	Budget budget(archive.Head(), limits);
	PayloadStream stream(archive, budget.MaxTarSize());
	TarReader reader(stream);
	Member member;
	while (reader.Next(member)) {
		budget.Add(member);
		function(reader, member);
	}
	budget.RequireUsedUp();
}

void WriteContent(TarReader& reader, const Member& member, UniqueFd file) {
	std::uint64_t written = 0;
	for (std::string_view block = reader.NextContent(); !block.empty(); block = reader.NextContent()) {
		WriteFully(file.Get(), block.data(), block.size(), "its content");
		written += block.size();
	}
	Require(written == member.size, "is shorter than its header says");
	RequireCall(file.Close(), "cannot write its content");
}

void ExtractMember(TarReader& reader, const Member& member, const MemberPath& path, BeneathWriter& writer) {
	Require((member.mode & kSpecialBits) == 0, "has a set-id or sticky bit");
	switch (member.kind) {
	case MemberKind::kFile:
		WriteContent(reader, member, writer.CreateFile(path, (member.mode & kExecutableBits) != 0));
		return;
	case MemberKind::kDirectory:
		writer.MakeDirectory(path);
		return;
	case MemberKind::kSymlink:
		CheckLinkTarget(path, member.link);
		writer.MakeSymlink(path, member.link);
		return;
	case MemberKind::kHardLink:
		writer.MakeHardLink(path, ParseMemberName(member.link));
		return;
	case MemberKind::kOther:
		break;
	}
	throw Error("is a device, a FIFO, a socket or of an unknown kind");
}

/** Runs a function over one member, adding the member's name to what it throws. */
template<typename Function>
auto Naming(const std::string& name, const Function& function) {
	try {
		return function();
	} catch (const Error& error) {
		throw Error("member \"" + Printable(name) + "\" " + error.what());
	}
}

} // namespace

void Extract(const ArchiveFile& archive, int directory, const std::vector<std::string>& members, const Limits& limits) {
	std::set<MemberPath> wanted;
	for (const std::string& name : members) {
		wanted.insert(Naming(name, [&] { return ParseMemberName(name); }));
	}
	BeneathWriter writer(directory);
	WalkMembers(archive, limits, [&](TarReader& reader, const Member& member) {
		Naming(member.name, [&] {
			const MemberPath path = ParseMemberName(member.name);
			if (members.empty() || wanted.erase(path) > 0) {
				ExtractMember(reader, member, path, writer);
			}
		});
	});
	if (!wanted.empty()) {
		throw Error("holds no member \"" + Printable(Joined(*wanted.begin())) + "\"");
	}
}

void ForEachMember(
    const ArchiveFile& archive, const std::function<void(const Member&)>& callback, const Limits& limits) {
	WalkMembers(archive, limits, [&](TarReader& /*reader*/, const Member& member) { callback(member); });
}

} // namespace tarn::archive
