// Hostile tars in an archive whose signature is good: members go to the destination and nowhere else, as files,
// directories and links that stay in it. The input is the tar, whose headers get the sums that they should have.
#include "archive/extractor.h"
#include "archive/writer.h"
#include "entry.h"
#include "scratch.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <string>

namespace {

namespace fs = std::filesystem;

using tarn::archive::ArchiveFile;
using tarn::test::Require;

constexpr mode_t kPermissions = 07777;
constexpr std::size_t kBlock = 512;

/** A destination and its neighbour, with an archive beside them. */
class Place {
public:
	Place() {
		fs::create_directory(scratch_ / "outside");
		tarn::test::Put(scratch_ / "outside/file", "neighbour");
	}
	std::string operator/(const std::string& name) const { return scratch_ / name; }

	/** An archive of one frame that declares what it is told. */
	ArchiveFile Seal(std::string_view tar, std::uint64_t entries, std::uint64_t bytes) const {
		tarn::archive::ArchiveSealer sealer(scratch_ / ".");
		const auto size = static_cast<std::uint32_t>(tar.size());
		sealer.Append({tarn::archive::Codec::kStored, size, size, {}}, tar);
		const std::string path = scratch_ / "archive";
		const tarn::UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
		tarn::archive::ArchiveHead head;
		head.key_type = tarn::archive::kDataUpdateKeyType;
		head.entry_count = entries;
		head.unpacked_size = bytes;
		sealer.Seal(head, "{}", key_, file.Get(), path);
		return ArchiveFile(path);
	}

	void CheckOutside() const {
		const fs::path file = scratch_ / "outside/file";
		Require(tarn::test::Content(file.string()) == "neighbour" && fs::hard_link_count(file) == 1,
		    "a neighbour is as it was");
		Require(std::distance(fs::directory_iterator(scratch_ / "outside"), {}) == 1 &&
		            std::distance(fs::directory_iterator(scratch_ / "."), {}) == 3,
		    "nothing is made beside the destination");
	}

private:
	tarn::test::Scratch scratch_;
	tarn::archive::SigningKey key_ = tarn::archive::SigningKey::Generate();
};

struct Count {
	std::uint64_t entries = 0;
	std::uint64_t bytes = 0;
};

/** What a head must declare, so that the members are taken; short of it where the tar is damaged. */
Count CountMembers(const Place& place, std::string_view tar) {
	constexpr std::uint64_t kMost = 10000;
	Count count;
	try {
		ForEachMember(place.Seal(tar, kMost, tar.size()), [&count](const tarn::archive::Member& member) {
			++count.entries;
			count.bytes += member.size;
		});
	} catch (const tarn::Error& error) {
		Require(*error.what() != '\0', "an error has a reason");
	}
	return count;
}

/** The sum of a header counts its own eight bytes as blanks. */
void MakeSum(char* header) {
	constexpr std::size_t kPlace = 148;
	constexpr std::size_t kSize = 8;
	std::fill_n(header + kPlace, kSize, ' ');
	const unsigned sum = std::accumulate(header, header + kBlock, 0U,
	    [](unsigned before, char byte) { return before + static_cast<unsigned char>(byte); });
	std::snprintf(header + kPlace, kSize, "%06o", sum);
}

/** Without a right sum a header is none, and a fuzz engine does not guess it. */
std::string WithSums(std::string tar) {
	constexpr std::size_t kMagicPlace = 257;
	for (std::size_t at = 0; at + kBlock <= tar.size(); at += kBlock) {
		if (tar.compare(at + kMagicPlace, 5, "ustar") == 0) {
			MakeSum(&tar[at]);
		}
	}
	return tar;
}

void CheckLink(const fs::path& link, const fs::path& root) {
	const fs::path target = fs::read_symlink(link);
	const fs::path reached = (link.parent_path() / target).lexically_normal().lexically_relative(root);
	Require(target.is_relative() && !reached.empty() && *reached.begin() != "..", "a link stays: " + target.string());
}

void CheckMembers(const fs::path& root) {
	for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
		struct stat status {};
		Require(lstat(entry.path().c_str(), &status) == 0, "a member can be looked at");
		if (S_ISLNK(status.st_mode)) {
			CheckLink(entry.path(), root);
			continue;
		}
		const mode_t mode = status.st_mode & kPermissions;
		Require(S_ISDIR(status.st_mode) || S_ISREG(status.st_mode), "a member is a file, a directory or a link");
		Require(mode == 0755 || (mode == 0644 && S_ISREG(status.st_mode)), "a member has a mode of the two");
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const Place place;
	const std::size_t used = std::min<std::size_t>(size, tarn::archive::kMaxFrameSize);
	const std::string tar = WithSums(std::string(tarn::test::Text(data, used)));
	if (tar.empty()) {
		return 0;
	}
	const Count count = CountMembers(place, tar);
	const std::string out = place / "out";
	fs::create_directory(out);
	const tarn::UniqueFd directory(open(out.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	try {
		Extract(place.Seal(tar, count.entries, count.bytes), directory.Get());
	} catch (const tarn::Error& error) {
		Require(*error.what() != '\0', "an error has a reason");
	}
	CheckMembers(out);
	place.CheckOutside();
	fs::remove_all(out);
	return 0;
}
