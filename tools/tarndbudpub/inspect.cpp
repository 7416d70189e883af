#include "inspect.h"

#include "publish_error.h"
#include "tarncodesign/archive_error.h"
#include "tarncodesign/extractor.h"
#include "tarncodesign/tarncodesign.h"

#include <json/json.h>

#include <iomanip>
#include <memory>

namespace tarn::publisher {

namespace {

/** Runs a function on a package; what it throws becomes a sentence with the package's name. */
template<typename Function>
auto NamingPackage(const std::string& package, const Function& function) {
	try {
		return function();
	} catch (const codesign::ArchiveError& error) {
		throw PublishError("The package " + package + " " + error.what() + ".");
	}
}

const char* KindName(codesign::MemberKind kind) {
	switch (kind) {
	case codesign::MemberKind::kFile:
		return "file";
	case codesign::MemberKind::kDirectory:
		return "directory";
	case codesign::MemberKind::kSymlink:
		return "symbolic link";
	case codesign::MemberKind::kHardLink:
		return "hard link";
	case codesign::MemberKind::kOther:
		break;
	}
	return "other";
}

// Unsigned text so far, so it may be anything; what is no JSON is shown as the text it is.
Json::Value ParseMetadata(std::string_view text) {
	Json::CharReaderBuilder builder;
	const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
	Json::Value value;
	try {
		if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
			return value;
		}
	} catch (const Json::Exception&) {
		value = Json::Value(); // too deep to be read
	}
	return codesign::Printable(text);
}

std::string ToLine(const Json::Value& value) {
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "";
	return Json::writeString(builder, value);
}

Json::Value HeadJson(const std::string& package, const codesign::ArchiveFile& archive) {
	const codesign::ArchiveHead& head = archive.Head();
	Json::Value value(Json::objectValue);
	value["package"] = package;
	value["verified"] = false;
	value["key_type"] = Json::UInt64{head.key_type};
	value["chunk_size"] = Json::UInt64{head.chunk_size};
	value["payload_size"] = Json::UInt64{head.payload_size};
	value["entry_count"] = Json::UInt64{head.entry_count};
	value["unpacked_size"] = Json::UInt64{head.unpacked_size};
	value["metadata"] = ParseMetadata(archive.Metadata());
	return value;
}

void PrintJson(const std::string& package, const codesign::ArchiveFile& archive, std::ostream& out) {
	Json::Value value = HeadJson(package, archive);
	Json::Value& members = value["members"] = Json::Value(Json::arrayValue);
	codesign::ForEachMember(archive, [&](const codesign::Member& member) {
		Json::Value item(Json::objectValue);
		item["name"] = member.name;
		item["kind"] = KindName(member.kind);
		item["size"] = Json::UInt64{member.size};
		if (!member.link.empty()) {
			item["target"] = member.link;
		}
		members.append(std::move(item));
	});
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "\t";
	out << Json::writeString(builder, value) << "\n";
}

void PrintTable(const std::string& package, const codesign::ArchiveFile& archive, std::ostream& out) {
	constexpr int kSizeWidth = 14;
	constexpr int kKindWidth = 15;
	const codesign::ArchiveHead& head = archive.Head();
	out << codesign::Printable(package) << " (signature not checked; \"verify\" does that)\n"
	    << "key type       " << head.key_type << "\n"
	    << "package bytes  " << head.FileSize() << "\n"
	    << "payload bytes  " << head.payload_size << " in " << head.ChunkCount() << " chunks of " << head.chunk_size
	    << "\n"
	    << "members        " << head.entry_count << "\n"
	    << "unpacked bytes " << head.unpacked_size << "\n"
	    << "metadata       " << ToLine(ParseMetadata(archive.Metadata())) << "\n\n"
	    << std::setw(kSizeWidth) << "bytes"
	    << "  " << std::left << std::setw(kKindWidth) << "kind"
	    << "name\n"
	    << std::right;
	codesign::ForEachMember(archive, [&](const codesign::Member& member) {
		out << std::setw(kSizeWidth) << member.size << "  " << std::left << std::setw(kKindWidth)
		    << KindName(member.kind) << std::right << codesign::Printable(member.name);
		if (!member.link.empty()) {
			out << " -> " << codesign::Printable(member.link);
		}
		out << "\n";
	});
}

} // namespace

std::string VerifyPackage(const std::string& package, const std::vector<std::string>& key_files) {
	std::vector<codesign::TrustedKey> keys;
	for (const std::string& file : key_files) {
		try {
			keys.push_back(codesign::LoadPublicKeyFile(file));
		} catch (const codesign::ArchiveError& error) {
			throw PublishError("The public key cannot be used: " + std::string(error.what()) + ".");
		}
	}
	return NamingPackage(package, [&] {
		const codesign::ArchiveFile archive(package);
		const codesign::TrustedKey& signer = keys[archive.Check(keys, TARNARCHIVE_KEYTYPE_DATA_UPDATE)];
		return package + " is whole and signed by " + signer.name + " (" + signer.key.Fingerprint() + ").";
	});
}

void InspectPackage(const std::string& package, bool json, std::ostream& out) {
	NamingPackage(package, [&] {
		const codesign::ArchiveFile archive(package);
		(json ? PrintJson : PrintTable)(package, archive, out);
	});
}

} // namespace tarn::publisher
