#include "publisher/packages/package.h"

#include "archive/extractor.h"
#include "archive/packer.h"
#include "archive/writer.h"
#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/unpack_beside.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <utility>

namespace tarn::publisher {

namespace {

// Up to which size a package takes all of the publisher's time: most diff packages do, and most devices take them.
constexpr std::uint64_t kMaxSmallDiff = std::uint64_t{8} << 20U;
constexpr std::uint64_t kMaxSmallFull = std::uint64_t{1} << 20U;
constexpr std::size_t kBufferSize = std::size_t{1} << 20U;

std::string Metadata(const PackageInfo& info) {
	Json::Value metadata = info.more;
	metadata["data_version"] = info.data_version;
	metadata[kFormatKey] = info.format_version;
	metadata["id"] = info.id;
	metadata["kind"] = info.kind;
	metadata["published"] = info.published;
	return JsonText(metadata);
}

struct stat StatusOf(int fd, const TreeFile& file) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		throw PublishError(ErrnoText(file.source + " cannot be read", errno) + ".");
	}
	return status;
}

void RequireUnchanged(bool unchanged, const TreeFile& file) {
	if (!unchanged) {
		throw PublishError("\"" + Printable(file.name) + "\" changed while it was published; publish a tree at rest.");
	}
}

bool SameContent(const struct stat& left, const struct stat& right) {
	return left.st_size == right.st_size && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
	       left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

void PackFile(const TreeFile& file, archive::TarWriter& tar, std::vector<char>& buffer,
    const std::function<void(std::uint64_t)>& report) {
	UniqueFd fd;
	try {
		fd = OpenRegularFile(AT_FDCWD, file.source);
	} catch (const Error& error) {
		if (!std::filesystem::exists(std::filesystem::symlink_status(file.source))) {
			RefuseVanished(file.name);
		}
		throw PublishError("\"" + Printable(file.name) + "\" cannot be read: it " + error.what() + ".");
	}
	const struct stat before = StatusOf(fd.Get(), file);
	RequireUnchanged(static_cast<std::uint64_t>(before.st_size) == file.size, file);
	tar.BeginFile(file.name, file.size, file.executable);
	for (std::uint64_t offset = 0; offset < file.size;) {
		const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), file.size - offset));
		RequireUnchanged(ReadFullyAt(fd.Get(), buffer.data(), part, offset), file);
		tar.WriteContent({buffer.data(), part});
		offset += part;
		report(offset);
	}
	tar.EndFile();
	RequireUnchanged(SameContent(before, StatusOf(fd.Get(), file)), file);
}

/** What files of like kind have in common. */
std::string KindOf(const TreeFile& file) {
	return std::filesystem::path(file.name).extension().string();
}

/** The files in the order in which they are packed. */
std::vector<const TreeFile*> InOrder(const Tree& tree) {
	std::vector<const TreeFile*> files;
	std::transform(
	    tree.files.begin(), tree.files.end(), std::back_inserter(files), [](const TreeFile& file) { return &file; });
	std::sort(files.begin(), files.end(), [](const TreeFile* left, const TreeFile* right) {
		return std::make_pair(KindOf(*left), left->name) < std::make_pair(KindOf(*right), right->name);
	});
	return files;
}

/** Calls a function whose failures are those of a package. */
template<typename Function>
auto Naming(const std::string& path, const Function& function) {
	try {
		return function();
	} catch (const archive::NotTrusted& error) {
		throw ForeignPackage("the package " + path + " " + error.what());
	} catch (const Error& error) {
		throw PublishError("the package " + path + " " + error.what());
	}
}

void RequireMetadata(const Json::Value& metadata, const PackageInfo& expected) {
	if (!metadata.isObject() || metadata["id"] != expected.id || metadata["kind"] != expected.kind ||
	    metadata["data_version"] != expected.data_version) {
		throw Error("is not the " + expected.kind + " package of version " + std::to_string(expected.data_version) +
		            " of " + expected.id);
	}
	if (expected.kind == kDiffKind && metadata["base_version"] != expected.data_version - 1) {
		throw Error("does not begin at version " + std::to_string(expected.data_version - 1));
	}
}

} // namespace

void AddNotes(const std::string& notes, Json::Value& metadata) {
	if (!notes.empty()) {
		metadata[kNotesKey] = notes;
	}
}

std::uint64_t WritePackage(const Tree& tree, const PackageInfo& info, const archive::SigningKey& key, int level,
    int archive_fd, const std::string& path, const PackProgress& progress) {
	archive::ArchiveSealer sealer(std::filesystem::path(path).parent_path().string());
	archive::Packer packer(level, info.kind == kDiffKind ? kMaxSmallDiff : kMaxSmallFull,
	    [&sealer](const archive::PackedFrame& frame) { sealer.Append(frame.frame, frame.packed); });
	archive::TarWriter tar([&packer](std::string_view bytes) { packer.Write(bytes); });
	std::vector<char> buffer(kBufferSize);
	std::uint64_t files = 0;
	std::uint64_t bytes = 0;
	const TreeFile* last = nullptr;
	for (const TreeFile* file : InOrder(tree)) {
		if (last != nullptr && KindOf(*last) != KindOf(*file)) {
			packer.BeginGroup();
		}
		PackFile(*file, tar, buffer, [&](std::uint64_t offset) { progress(files, bytes + offset); });
		++files;
		bytes += file->size;
		last = file;
	}
	progress(files, bytes);
	tar.Finish();
	packer.Finish();
	archive::ArchiveHead head;
	head.key_type = archive::kDataUpdateKeyType;
	head.entry_count = files;
	head.unpacked_size = bytes;
	return sealer.Seal(head, Metadata(info), key, archive_fd, path);
}

Json::Value ReadMetadata(const archive::ArchiveFile& archive) {
	return ParseJson(archive.Metadata()).value_or(Json::Value());
}

std::optional<int> PublishedTime(const Json::Value& metadata) {
	const Json::Value published = metadata.isObject() ? metadata["published"] : Json::Value();
	const bool is_time = published.isInt64() && published.asInt64() >= 0 && published.asInt64() <= kMaxNumber;
	return is_time ? std::optional(static_cast<int>(published.asInt64())) : std::nullopt;
}

std::vector<archive::TrustedKey> LoadPublicKeys(const std::vector<std::string>& files, const std::string& what) {
	std::vector<archive::TrustedKey> keys;
	for (const std::string& file : files) {
		try {
			keys.push_back(archive::LoadPublicKeyFile(file));
		} catch (const Error& error) {
			throw PublishError(what + " cannot be used: " + error.what() + ".");
		}
	}
	return keys;
}

PackageReader::PackageReader(const archive::SigningKey& key, const std::vector<std::string>& old_keys)
    : keys_(LoadPublicKeys(old_keys, "The old public key")) {
	keys_.insert(keys_.begin(), {"the signing key", archive::PublicKey::FromPem(key.PublicPem())});
}

archive::ArchiveFile PackageReader::Open(const std::string& path, const PackageInfo& expected) const {
	return Naming(path, [&] {
		archive::ArchiveFile archive(path);
		archive.Check(keys_, archive::kDataUpdateKeyType);
		RequireMetadata(ReadMetadata(archive), expected);
		return archive;
	});
}

archive::ArchiveFile PackageReader::OpenUnchecked(const std::string& path, const PackageInfo& expected) {
	return Naming(path, [&] {
		archive::ArchiveFile archive(path);
		RequireMetadata(ReadMetadata(archive), expected);
		return archive;
	});
}

void PackageReader::UnpackNextTo(const std::string& path, const PackageInfo& expected, const std::string& root,
    const std::string& target, const std::string& earlier) const {
	const archive::ArchiveFile archive = Open(path, expected);
	Naming(path, [&] { UnpackBeside(archive, root, target, earlier); });
}

void PackageReader::Unpack(const std::string& path, const PackageInfo& expected, const std::string& directory,
    const std::vector<std::string>& members) const {
	const archive::ArchiveFile archive = Open(path, expected);
	Naming(path, [&] {
		const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		if (!fd) {
			ThrowErrno("cannot be unpacked into " + directory);
		}
		archive::Extract(archive, fd.Get(), members);
	});
}

} // namespace tarn::publisher
