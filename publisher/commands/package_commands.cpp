#include "archive/extractor.h"
#include "base/error.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/commands/diff_table.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"

#include <fcntl.h>

#include <array>
#include <filesystem>
#include <iomanip>
#include <map>
#include <optional>
#include <system_error>

namespace tarn::publisher {

namespace {

struct Options {
	std::string package;
	std::vector<std::string> public_keys;
	std::string directory;
	bool json = false;
};

/** Runs a function on a package; what it throws becomes a sentence with the package's name. */
template<typename Function>
int OnPackage(const std::string& package, const Function& function) {
	try {
		function(archive::ArchiveFile(package));
		return kDone;
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
		value[archive::CodecName(codec)] =
		    JsonObject({{"frames", packed.frames}, {"packed_size", packed.packed}, {"unpacked_size", packed.unpacked}});
	}
	return value;
}

/** "zstd 12 frames, 301 of 1000 bytes; stored …". */
std::string CodecsText(const archive::ArchiveFile& archive) {
	std::string text;
	for (const auto& [codec, packed] : PackedByCodec(archive)) {
		text += (text.empty() ? "" : "; ") + std::string(archive::CodecName(codec)) + " " +
		        Counted(packed.frames, "frame") + ", " + std::to_string(packed.packed) + " of " +
		        std::to_string(packed.unpacked) + " bytes";
	}
	return text;
}

Json::Value HeadJson(const std::string& package, const archive::ArchiveFile& archive) {
	const archive::ArchiveHead& head = archive.Head();
	return JsonObject({{"package", package}, {"verified", false}, {"key_type", head.key_type},
	    {"payload_size", head.payload_size}, {"codecs", CodecsJson(archive)}, {"entry_count", head.entry_count},
	    {"unpacked_size", head.unpacked_size}, {"metadata", MetadataJson(archive)}});
}

/** A member of the metadata; null when there is none. */
Json::Value MemberOf(const archive::ArchiveFile& archive, const char* key) {
	const Json::Value metadata = ReadMetadata(archive);
	return metadata.isObject() ? metadata[key] : Json::Value();
}

/** What a diff package describes; no value for a full package, which has no description. */
std::optional<DiffPackage> DiffOf(const archive::ArchiveFile& archive) {
	return MemberOf(archive, "kind") == kDiffKind ? std::optional(ReadDiffPackage(archive)) : std::nullopt;
}

/** "2026-11-21 16:52:41 UTC", or "unknown" when the package does not say. */
std::string PublishedAt(const archive::ArchiveFile& archive) {
	const Json::Value published = MemberOf(archive, "published");
	const std::string text = TimeText(published.isInt64() ? published.asInt64() : -1);
	return text.empty() ? "unknown" : text;
}

/** A line with what the publisher says about the version; empty when it says nothing. */
std::string NotesLine(const archive::ArchiveFile& archive) {
	const Json::Value notes = MemberOf(archive, kNotesKey);
	return notes.isString() ? "notes          " + Printable(notes.asString()) + "\n" : "";
}

void PrintJson(const std::string& package, const archive::ArchiveFile& archive, std::ostream& out) {
	Json::Value value = HeadJson(package, archive);
	Json::Value& members = value["members"] = Json::Value(Json::arrayValue);
	archive::ForEachMember(archive, [&](const archive::Member& member) {
		Json::Value item = JsonObject({{"name", member.name}, {"kind", KindName(member.kind)}, {"size", member.size}});
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

int RunVerify(const Options& options, const Streams& streams) {
	const std::vector<archive::TrustedKey> keys = LoadPublicKeys(options.public_keys);
	return OnPackage(options.package, [&](const archive::ArchiveFile& archive) {
		const archive::TrustedKey& signer = keys[archive.Check(keys, archive::kDataUpdateKeyType)];
		streams.out << options.package << " is whole and signed by " << signer.name << " (" << signer.key.Fingerprint()
		            << ").\n";
	});
}

int RunExtract(const Options& options, const Streams& streams) {
	const std::vector<archive::TrustedKey> keys = LoadPublicKeys(options.public_keys);
	return OnPackage(options.package, [&](const archive::ArchiveFile& archive) {
		archive.Check(keys, archive::kDataUpdateKeyType);
		std::error_code ignored; // What keeps the directory from being made keeps it from being opened.
		std::filesystem::create_directory(options.directory, ignored);
		const UniqueFd fd(open(options.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		if (!fd) {
			ThrowErrno("cannot be unpacked into " + options.directory);
		}
		archive::Extract(archive, fd.Get());
		streams.out << archive.Head().entry_count << " files of " << options.package << " are in " << options.directory
		            << ".\n";
	});
}

int RunInspect(const Options& options, const Streams& streams) {
	return OnPackage(options.package, [&](const archive::ArchiveFile& archive) {
		(options.json ? PrintJson : PrintTable)(options.package, archive, streams.out);
	});
}

} // namespace

void AddPackageCommands(CLI::App& app, Command& given) {
	const auto options = std::make_shared<Options>();
	CLI::App* verify = app.add_subcommand("verify", "Check a package's signature and content");
	CLI::App* extract = app.add_subcommand("extract", "Check a package and unpack its files");
	CLI::App* inspect = app.add_subcommand("inspect", "Show what a package says about itself; checks no signature");
	for (CLI::App* command : {verify, extract, inspect}) {
		command->add_option("PACKAGE", options->package, "Package file")->required();
	}
	for (CLI::App* command : {verify, extract}) {
		command->add_option("--key", options->public_keys, "Public key that may have signed it; may be repeated")
		    ->required();
	}
	extract->add_option("DIRECTORY", options->directory, "Directory for the files; made if missing")->required();
	AddJson(*inspect, options->json);
	OnGiven(*verify, given, options, RunVerify);
	OnGiven(*extract, given, options, RunExtract);
	OnGiven(*inspect, given, options, RunInspect);
}

} // namespace tarn::publisher
