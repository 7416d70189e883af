#include "package.h"

#include "archive_sealer.h"
#include "publish_error.h"
#include "tar_zstd_writer.h"
#include "tarncodesign/archive_error.h"
#include "tarncodesign/file_io.h"
#include "tarncodesign/tarncodesign.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

namespace tarn::publisher {

namespace {

std::string Metadata(const PackageInfo& info) {
	Json::Value metadata = info.more;
	metadata["data_version"] = info.data_version;
	metadata["format_version"] = info.format_version;
	metadata["id"] = info.id;
	metadata["kind"] = info.kind;
	metadata["published"] = info.published;
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "";
	return Json::writeString(builder, metadata);
}

struct stat StatusOf(int fd, const TreeFile& file) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		throw PublishError(codesign::ErrnoText(file.source + " cannot be read", errno) + ".");
	}
	return status;
}

void RequireUnchanged(bool unchanged, const TreeFile& file) {
	if (!unchanged) {
		throw PublishError(
		    "\"" + codesign::Printable(file.name) + "\" changed while it was published; publish a tree at rest.");
	}
}

bool SameContent(const struct stat& left, const struct stat& right) {
	return left.st_size == right.st_size && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
	       left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

void PackFile(const TreeFile& file, TarZstdWriter& tar, std::vector<char>& buffer,
    const std::function<void(std::uint64_t)>& report) {
	UniqueFd fd;
	try {
		fd = codesign::OpenRegularFile(AT_FDCWD, file.source);
	} catch (const codesign::ArchiveError& error) {
		if (!std::filesystem::exists(std::filesystem::symlink_status(file.source))) {
			RefuseVanished(file.name);
		}
		throw PublishError("\"" + codesign::Printable(file.name) + "\" cannot be read: it " + error.what() + ".");
	}
	const struct stat before = StatusOf(fd.Get(), file);
	RequireUnchanged(static_cast<std::uint64_t>(before.st_size) == file.size, file);
	tar.BeginFile(file.name, file.size, file.executable);
	for (std::uint64_t offset = 0; offset < file.size;) {
		const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), file.size - offset));
		RequireUnchanged(codesign::ReadFullyAt(fd.Get(), buffer.data(), part, offset), file);
		tar.WriteContent({buffer.data(), part});
		offset += part;
		report(offset);
	}
	RequireUnchanged(SameContent(before, StatusOf(fd.Get(), file)), file);
}

} // namespace

std::uint64_t WritePackage(const Tree& tree, const PackageInfo& info, const SigningKey& key, int level, int archive_fd,
    const std::string& path, const PackProgress& progress) {
	ArchiveSealer sealer(std::filesystem::path(path).parent_path().string());
	TarZstdWriter tar(level, [&sealer](std::string_view bytes) { sealer.Append(bytes); });
	std::vector<char> buffer(codesign::kChunkSize);
	std::uint64_t files = 0;
	std::uint64_t bytes = 0;
	for (const TreeFile& file : tree.files) {
		PackFile(file, tar, buffer, [&](std::uint64_t offset) { progress(files, bytes + offset); });
		++files;
		bytes += file.size;
	}
	progress(files, bytes);
	tar.Finish();
	codesign::ArchiveHead head;
	head.key_type = TARNARCHIVE_KEYTYPE_DATA_UPDATE;
	head.entry_count = files;
	head.unpacked_size = bytes;
	return sealer.Seal(head, Metadata(info), key, archive_fd, path);
}

} // namespace tarn::publisher
