#include "codesign_archives.h"

#include "archive/compressor.h"
#include "archive/writer.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

namespace tarn::test {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kBlock = 512;

void PutOctal(std::string& header, std::size_t offset, std::size_t width, unsigned long long value) {
	std::string digits(width, '0');
	for (std::size_t i = width - 1; i-- > 0; value /= 8) {
		digits[i] = static_cast<char>('0' + value % 8);
	}
	digits[width - 1] = '\0';
	header.replace(offset, width, digits);
}

void PutText(std::string& header, std::size_t offset, std::size_t width, const std::string& text) {
	header.replace(offset, std::min(width, text.size()), text, 0, width);
}

std::string Header(const TarMember& member) {
	std::string header(kBlock, '\0');
	PutText(header, 0, 100, member.name);
	PutOctal(header, 100, 8, member.mode);
	PutOctal(header, 108, 8, 0);
	PutOctal(header, 116, 8, 0);
	PutOctal(header, 124, 12, member.content.size());
	PutOctal(header, 136, 12, 0);
	header.replace(148, 8, 8, ' ');
	header[156] = member.type;
	PutText(header, 157, 100, member.link);
	PutText(header, 257, 8, member.magic);
	unsigned sum = 0;
	for (const char c : header) {
		sum += static_cast<unsigned char>(c);
	}
	PutOctal(header, 148, 7, sum);
	return header;
}

bool IsMetaMember(const TarMember& member) {
	return member.type == 'L' || member.type == 'x';
}

} // namespace

TarMember File(const std::string& name, const std::string& content) {
	return {name, '0', content, "", 0644, kGnuMagic};
}
TarMember Directory(const std::string& name) {
	return {name, '5', "", "", 0755, kGnuMagic};
}
TarMember Symlink(const std::string& name, const std::string& target) {
	return {name, '2', "", target, 0777, kGnuMagic};
}
TarMember HardLink(const std::string& name, const std::string& target) {
	return {name, '1', "", target, 0644, kGnuMagic};
}
TarMember Special(const std::string& name, char type) {
	return {name, type, "", "", 0644, kGnuMagic};
}

TarMember WithMode(TarMember member, unsigned mode) {
	member.mode = mode;
	return member;
}

std::vector<TarMember> LongNamed(const std::string& name, const std::string& content) {
	return {{"././@LongLink", 'L', name + '\0', "", 0644, kGnuMagic}, File(name.substr(0, 100), content)};
}

std::string MakeTar(const std::vector<TarMember>& members) {
	std::string tar;
	for (const TarMember& member : members) {
		tar += Header(member) + member.content;
		tar.resize((tar.size() + kBlock - 1) / kBlock * kBlock);
	}
	return tar + std::string(2 * kBlock, '\0');
}

archive::PackedFrame MakeFrame(archive::Codec codec, const std::string& packed, std::size_t unpacked_size) {
	archive::PackedFrame frame;
	frame.packed = packed;
	frame.frame.codec = codec;
	frame.frame.unpacked_size = static_cast<std::uint32_t>(unpacked_size);
	return frame;
}

archive::PackedFrame FrameOf(const std::string& bytes, archive::Codec codec) {
	constexpr int kLevel = 3;
	const std::string packed = archive::Compress(codec, bytes, kLevel);
	const bool is_smaller = packed.size() < bytes.size();
	return MakeFrame(is_smaller ? codec : archive::Codec::kStored, is_smaller ? packed : bytes, bytes.size());
}

std::vector<archive::PackedFrame> FramesOf(const std::string& bytes, archive::Codec codec) {
	std::vector<archive::PackedFrame> frames;
	for (std::size_t begin = 0; begin < bytes.size(); begin += archive::kMaxFrameSize) {
		frames.push_back(FrameOf(bytes.substr(begin, archive::kMaxFrameSize), codec));
	}
	return frames;
}

std::string RandomBytes(std::size_t size, unsigned seed) {
	std::mt19937 generator(seed);
	std::string bytes(size, '\0');
	std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
	return bytes;
}

archive::TrustedKey Trusted(const archive::SigningKey& key, const std::string& name) {
	return {name, archive::PublicKey::FromPem(key.PublicPem())};
}

ArchiveTest::ArchiveTest() {
	trusted_.push_back(Trusted(key_));
	fs::create_directory(directory_ / "out");
	WriteFile(directory_ / "outside/secret", "secret");
}

std::string ArchiveTest::SealFrames(const std::vector<archive::PackedFrame>& frames, std::uint64_t entries,
    std::uint64_t bytes, const archive::SigningKey& key, std::uint32_t key_type) {
	std::string path = directory_ / ("archive" + std::to_string(archives_++));
	archive::ArchiveSealer sealer(directory_.Path().string());
	for (const archive::PackedFrame& frame : frames) {
		sealer.Append(frame.frame, frame.packed);
	}
	archive::ArchiveHead head;
	head.key_type = key_type;
	head.entry_count = entries;
	head.unpacked_size = bytes;
	const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
	sealer.Seal(head, metadata_, key, fd.Get(), path);
	return path;
}

std::string ArchiveTest::Seal(const std::vector<TarMember>& members, const Declared& declared) {
	std::uint64_t entries = 0;
	std::uint64_t bytes = 0;
	for (const TarMember& member : members) {
		entries += IsMetaMember(member) ? 0U : 1U;
		bytes += member.type == '0' ? member.content.size() : 0U;
	}
	return SealFrames(FramesOf(MakeTar(members)), declared.entries.value_or(entries), declared.bytes.value_or(bytes),
	    key_, declared.key_type);
}

void ArchiveTest::Install(const std::string& archive, const archive::Limits& limits) {
	const archive::ArchiveFile file(archive);
	file.Check(trusted_, 6);
	const UniqueFd out(open((directory_ / "out").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	archive::Extract(file, out.Get(), {}, limits);
}

std::string ArchiveTest::InstallError(const std::string& archive, const archive::Limits& limits) {
	try {
		Install(archive, limits);
		return "";
	} catch (const std::exception& error) {
		return error.what();
	}
}

void ArchiveTest::EmptyDestination() {
	fs::remove_all(directory_ / "out");
	fs::create_directory(directory_ / "out");
}

std::map<std::string, std::string> ArchiveTest::Installed() const {
	std::map<std::string, std::string> found;
	const fs::path out = directory_ / "out";
	for (const fs::directory_entry& entry : fs::recursive_directory_iterator(out)) {
		std::string& value = found[entry.path().lexically_relative(out).string()];
		if (entry.is_symlink()) {
			value = "-> " + fs::read_symlink(entry.path()).string();
		} else {
			value = entry.is_directory() ? "/" : ReadFile(entry.path().string());
		}
	}
	return found;
}

void ArchiveTest::ExpectOutsideUntouched() const {
	std::vector<std::string> names;
	for (const fs::directory_entry& entry : fs::directory_iterator(directory_ / "outside")) {
		names.push_back(entry.path().filename().string());
	}
	EXPECT_EQ(names, std::vector<std::string>{"secret"});
	EXPECT_EQ(ReadFile(directory_ / "outside/secret"), "secret");
	EXPECT_EQ(fs::hard_link_count(directory_ / "outside/secret"), 1U);
}

} // namespace tarn::test
