/** @file Signed archives of every shape, well-formed or not, for the tests of their readers. */
#ifndef TESTS_UNIT_SUPPORT_CODESIGN_ARCHIVES_H
#define TESTS_UNIT_SUPPORT_CODESIGN_ARCHIVES_H

#include "archive/extractor.h"
#include "archive/file.h"
#include "archive/packer.h"
#include "archive/signing_key.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::test {

/** The mark of a header in the GNU form, and in the POSIX form. */
const std::string kGnuMagic("ustar  \0", 8);
const std::string kPosixMagic("ustar\0"
                              "00",
    8);

/** One member as it stands in the tar; the header is built by hand, so that nothing corrects it. */
struct TarMember {
	std::string name;
	char type = '0';
	std::string content; // for links: the target is in link
	std::string link;
	unsigned mode = 0644;
	std::string magic = kGnuMagic;
};

TarMember File(const std::string& name, const std::string& content = "content");
TarMember Directory(const std::string& name);
TarMember Symlink(const std::string& name, const std::string& target);
TarMember HardLink(const std::string& name, const std::string& target);
TarMember Special(const std::string& name, char type);
TarMember WithMode(TarMember member, unsigned mode);
/** The two members that hold a name too long for a header. */
std::vector<TarMember> LongNamed(const std::string& name, const std::string& content);

std::string MakeTar(const std::vector<TarMember>& members);
/** A frame that says what it is told, whatever it holds. */
archive::PackedFrame MakeFrame(archive::Codec codec, const std::string& packed, std::size_t unpacked_size);
/** A frame of these bytes; stored when the codec makes them no smaller. */
archive::PackedFrame FrameOf(const std::string& bytes, archive::Codec codec = archive::Codec::kZstd);
/** As many frames as bytes need. */
std::vector<archive::PackedFrame> FramesOf(const std::string& bytes, archive::Codec codec = archive::Codec::kZstd);
/** Bytes that do not compress, always the same for a seed. */
std::string RandomBytes(std::size_t size, unsigned seed);

/** What a head declares, where it is not the truth. */
struct Declared {
	std::optional<std::uint64_t> entries;
	std::optional<std::uint64_t> bytes;
	std::uint32_t key_type = 6;
};

/** A key, a directory for archives, a destination "out", and a neighbour "outside" that nothing may touch. */
class ArchiveTest : public ::testing::Test {
protected:
	ArchiveTest();

	/** Writes a signed archive with these frames; the head declares what it is told. */
	std::string SealFrames(const std::vector<archive::PackedFrame>& frames, std::uint64_t entries, std::uint64_t bytes,
	    const archive::SigningKey& key, std::uint32_t key_type = 6);
	/** Writes a signed archive with members. */
	std::string Seal(const std::vector<TarMember>& members, const Declared& declared = {});

	/** What a device does: open, check, extract to "out". */
	void Install(const std::string& archive, const archive::Limits& limits = {});
	/** The text of what Install() throws; empty when it succeeds. */
	std::string InstallError(const std::string& archive, const archive::Limits& limits = {});

	void EmptyDestination();
	/** Relative names below "out" with their content; "-> target" for links, "/" for directories. */
	std::map<std::string, std::string> Installed() const;
	void ExpectOutsideUntouched() const;

	TemporaryDirectory directory_;
	archive::SigningKey key_ = archive::SigningKey::Generate();
	std::vector<archive::TrustedKey> trusted_;
	std::string metadata_ = R"({"id":"test"})"; // of every archive that is sealed

private:
	int archives_ = 0;
};

/** The public half of a key, as a device trusts it. */
archive::TrustedKey Trusted(const archive::SigningKey& key, const std::string& name = "key.pub");

} // namespace tarn::test

#endif
