#include "publisher/commands/inspect.h"

#include "archive/extractor.h"
#include "base/error.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "publisher/commands/diff_table.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"

#include <json/json.h>

#include <fcntl.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <map>
#include <optional>
#include <sstream>
#include <system_error>

namespace tarn::publisher {

namespace {

/** Runs a function on a package; what it throws becomes a sentence with the package's name. */
template<typename Function>
auto NamingPackage(const std::string& package, const Function& function) {
	try {
		return function();
	} catch (const Error& error) {
		throw PublishError("The package " + package + " " + error.what() + ".");
	}
}

const char* KindName(archive::MemberKind kind) {
	static constexpr std::array<const char*, 5> kNames = {"file", "directory", "symbolic link", "hard link", "other"};
	static_assert(kNames.size() == static_cast<std::size_t>(archive::MemberKind::kOther) + 1);
	return kNames.at(static_cast<std::size_t>(kind));
}

// The text is not verified and may be anything: what is no JSON is shown as it is.
Json::Value MetadataJson(const archive::ArchiveFile& archive) {
	Json::Value value = ReadMetadata(archive);
	return value.isNull() ? Json::Value(Printable(archive.Metadata())) : value;
}

struct Packed {
	std::uint64_t frames = 0;
	std::uint64_t packed = 0;
	std::uint64_t unpacked = 0;
};

/** What was compressed in which way. */
std::map<archive::Codec, Packed> PackedByCodec(const archive::ArchiveFile& archive) {
	std::map<archive::Codec, Packed> codecs;
	for (const archive::Frame& frame : archive.Frames()) {
		Packed& packed = codecs[frame.codec];
		++packed.frames;
		packed.packed += frame.packed_size;
		packed.unpacked += frame.unpacked_size;
	}
	return codecs;
}

Json::Value CodecsJson(const archive::ArchiveFile& archive) {
	Json::Value value(Json::objectValue);
	for (const auto& [codec, packed] : PackedByCodec(archive)) {
		Json::Value& item = value[archive::CodecName(codec)];
		item["frames"] = Json::UInt64{packed.frames};
		item["packed_size"] = Json::UInt64{packed.packed};
		item["unpacked_size"] = Json::UInt64{packed.unpacked};
	}
	return value;
}

/** "zstd 12 frames, 301 of 1000 bytes; stored …". */
std::string CodecsText(const archive::ArchiveFile& archive) {
	std::string text;
	for (const auto& [codec, packed] : PackedByCodec(archive)) {
		text += (text.empty() ? "" : "; ") + std::string(archive::CodecName(codec)) + " " +
		        std::to_string(packed.frames) + (packed.frames == 1 ? " frame, " : " frames, ") +
		        std::to_string(packed.packed) + " of " + std::to_string(packed.unpacked) + " bytes";
	}
	return text;
}

Json::Value HeadJson(const std::string& package, const archive::ArchiveFile& archive) {
	const archive::ArchiveHead& head = archive.Head();
	Json::Value value(Json::objectValue);
	value["package"] = package;
	value["verified"] = false;
	value["key_type"] = Json::UInt64{head.key_type};
	value["payload_size"] = Json::UInt64{head.payload_size};
	value["codecs"] = CodecsJson(archive);
	value["entry_count"] = Json::UInt64{head.entry_count};
	value["unpacked_size"] = Json::UInt64{head.unpacked_size};
	value["metadata"] = MetadataJson(archive);
	return value;
}

/** What a diff package describes; no value for a full package, which has no description. */
std::optional<DiffPackage> DiffOf(const archive::ArchiveFile& archive) {
	const Json::Value metadata = ReadMetadata(archive);
	const bool is_diff = metadata.isObject() && metadata["kind"] == kDiffKind;
	return is_diff ? std::optional(ReadDiffPackage(archive)) : std::nullopt;
}

/** "2026-11-21 16:52:41 UTC", or "unknown" when the package does not say. */
std::string PublishedAt(const archive::ArchiveFile& archive) {
	const Json::Value metadata = ReadMetadata(archive);
	const Json::Value published = metadata.isObject() ? metadata["published"] : Json::Value();
	struct tm time {};
	const std::time_t seconds = published.isInt64() ? published.asInt64() : -1;
	if (seconds < 0 || gmtime_r(&seconds, &time) == nullptr) {
		return "unknown";
	}
	std::ostringstream text;
	text << std::put_time(&time, "%Y-%m-%d %H:%M:%S UTC");
	return text.str();
}

/** A line with what the publisher says about the version; empty when it says nothing. */
std::string NotesLine(const archive::ArchiveFile& archive) {
	const Json::Value metadata = ReadMetadata(archive);
	const bool has_notes = metadata.isObject() && metadata[kNotesKey].isString();
	return has_notes ? "notes          " + Printable(metadata[kNotesKey].asString()) + "\n" : "";
}

void PrintJson(const std::string& package, const archive::ArchiveFile& archive, std::ostream& out) {
	Json::Value value = HeadJson(package, archive);
	Json::Value& members = value["members"] = Json::Value(Json::arrayValue);
	archive::ForEachMember(archive, [&](const archive::Member& member) {
		Json::Value item(Json::objectValue);
		item["name"] = member.name;
		item["kind"] = KindName(member.kind);
		item["size"] = Json::UInt64{member.size};
		if (!member.link.empty()) {
			item["target"] = member.link;
		}
		members.append(std::move(item));
	});
	if (const std::optional<DiffPackage> diff = DiffOf(archive)) {
		AddDiffJson(*diff, value);
	}
	out << JsonText(value, "\t") << "\n";
}

void PrintMemberTable(const archive::ArchiveFile& archive, std::ostream& out) {
	constexpr int kSizeWidth = 14;
	constexpr int kKindWidth = 15;
	out << std::setw(kSizeWidth) << "bytes"
	    << "  " << std::left << std::setw(kKindWidth) << "kind"
	    << "name\n"
	    << std::right;
	archive::ForEachMember(archive, [&](const archive::Member& member) {
		out << std::setw(kSizeWidth) << member.size << "  " << std::left << std::setw(kKindWidth)
		    << KindName(member.kind) << std::right << Printable(member.name);
		if (!member.link.empty()) {
			out << " -> " << Printable(member.link);
		}
		out << "\n";
	});
}

void PrintTable(const std::string& package, const archive::ArchiveFile& archive, std::ostream& out) {
	const archive::ArchiveHead& head = archive.Head();
	out << Printable(package) << " (signature not checked; \"verify\" does that)\n"
	    << "key type       " << head.key_type << "\n"
	    << "package bytes  " << head.FileSize() << "\n"
	    << "payload bytes  " << head.payload_size << "\n"
	    << "compression    " << CodecsText(archive) << "\n"
	    << "members        " << head.entry_count << "\n"
	    << "unpacked bytes " << head.unpacked_size << "\n"
	    << "published      " << PublishedAt(archive) << "\n"
	    << NotesLine(archive) << "metadata       " << JsonText(MetadataJson(archive)) << "\n\n";
	if (const std::optional<DiffPackage> diff = DiffOf(archive)) {
		PrintDiffTable(*diff, out);
	} else {
		PrintMemberTable(archive, out);
	}
}

} // namespace

std::string VerifyPackage(const std::string& package, const std::vector<std::string>& key_files) {
	const std::vector<archive::TrustedKey> keys = LoadPublicKeys(key_files);
	return NamingPackage(package, [&] {
		const archive::ArchiveFile archive(package);
		const archive::TrustedKey& signer = keys[archive.Check(keys, archive::kDataUpdateKeyType)];
		return package + " is whole and signed by " + signer.name + " (" + signer.key.Fingerprint() + ").";
	});
}

std::string UnpackPackage(
    const std::string& package, const std::vector<std::string>& key_files, const std::string& directory) {
	const std::vector<archive::TrustedKey> keys = LoadPublicKeys(key_files);
	return NamingPackage(package, [&] {
		const archive::ArchiveFile archive(package);
		archive.Check(keys, archive::kDataUpdateKeyType);
		std::error_code ignored; // What keeps the directory from being made keeps it from being opened.
		std::filesystem::create_directory(directory, ignored);
		const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		if (!fd) {
			ThrowErrno("cannot be unpacked into " + directory);
		}
		archive::Extract(archive, fd.Get());
		return std::to_string(archive.Head().entry_count) + " files of " + package + " are in " + directory + ".";
	});
}

void InspectPackage(const std::string& package, bool json, std::ostream& out) {
	NamingPackage(package, [&] {
		const archive::ArchiveFile archive(package);
		(json ? PrintJson : PrintTable)(package, archive, out);
	});
}

} // namespace tarn::publisher
