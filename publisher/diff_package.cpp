#include "publisher/diff_package.h"

#include "archive/extractor.h"
#include "archive/payload_stream.h"
#include "archive/tar_reader.h"
#include "base/error.h"
#include "base/text.h"
#include "publisher/device.h"

#include <iomanip>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

namespace tarn::publisher {

namespace {

std::optional<Json::Value> ParseJson(std::string_view text) {
	Json::CharReaderBuilder builder;
	const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
	Json::Value value;
	try {
		if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
			return value;
		}
	} catch (const Json::Exception&) {
		return std::nullopt; // too deep to be read
	}
	return std::nullopt;
}

struct Content {
	std::map<std::string, std::uint64_t> sizes;
	std::string description;
};

Content ReadContent(const archive::ArchiveFile& archive) {
	const archive::Limits limits;
	archive::PayloadStream stream(archive, limits.bytes);
	archive::TarReader reader(stream);
	archive::Member member;
	Content content;
	while (reader.Next(member)) {
		content.sizes[member.name] = member.size;
		if (member.name != kDescriptionName) {
			continue;
		}
		if (member.size > kMaxDescriptionBytes) {
			throw Error("has a description that is too large for devices");
		}
		for (std::string_view block = reader.NextContent(); !block.empty(); block = reader.NextContent()) {
			content.description += block;
		}
	}
	return content;
}

std::string Text(const Json::Value& value, const char* key) {
	return value.isObject() && value[key].isString() ? value[key].asString() : std::string();
}

PatchKind KindOf(const std::string& operation, const std::string& input_file) {
	if (operation == "create") {
		return PatchKind::kWhole;
	}
	if (operation == "delete") {
		return PatchKind::kNone;
	}
	for (const PatchKind kind : {PatchKind::kVcdiff, PatchKind::kScript}) {
		const std::string extension = PatchKindExtension(kind);
		if (operation == "update" && input_file.size() > extension.size() && EndsWith(input_file, extension)) {
			return kind;
		}
	}
	throw Error("describes an operation that devices do not know, \"" + Printable(operation) + "\" with \"" +
	            Printable(input_file) + "\"");
}

/** A deleted name with deleted names below it was a directory: the version before had no file of that name. */
void MarkDirectories(std::vector<DiffMember>& members) {
	std::set<std::string> above;
	for (const DiffMember& member : members) {
		const std::string& name = member.name;
		for (std::size_t end = name.find('/'); end != std::string::npos; end = name.find('/', end + 1)) {
			if (member.kind == PatchKind::kNone) {
				above.insert(name.substr(0, end));
			}
		}
	}
	for (DiffMember& member : members) {
		if (member.kind == PatchKind::kNone && above.count(member.name) > 0) {
			member.kind = PatchKind::kEmptied;
		}
	}
}

} // namespace

const char* PatchKindName(PatchKind kind) {
	switch (kind) {
	case PatchKind::kWhole:
		return "whole";
	case PatchKind::kVcdiff:
		return "vcdiff";
	case PatchKind::kScript:
		return "sql";
	case PatchKind::kEmptied:
		return "dir";
	case PatchKind::kNone:
		break;
	}
	return "-";
}

const char* PatchKindExtension(PatchKind kind) {
	switch (kind) {
	case PatchKind::kWhole:
		return ".new";
	case PatchKind::kVcdiff:
		return ".vcdiff";
	case PatchKind::kScript:
		return ".sqlitediff";
	case PatchKind::kNone:
	case PatchKind::kEmptied:
		break;
	}
	return "";
}

const char* OperationOf(PatchKind kind) {
	switch (kind) {
	case PatchKind::kWhole:
		return "create";
	case PatchKind::kVcdiff:
	case PatchKind::kScript:
		return "update";
	case PatchKind::kNone:
	case PatchKind::kEmptied:
		break;
	}
	return "delete";
}

std::string InputFileName(std::size_t number, PatchKind kind) {
	constexpr int kDigits = 6;
	std::ostringstream name;
	name << "files/" << std::setw(kDigits) << std::setfill('0') << number + 1 << PatchKindExtension(kind);
	return name.str();
}

Json::Value ReadMetadata(const archive::ArchiveFile& archive) {
	return ParseJson(archive.Metadata()).value_or(Json::Value());
}

DiffPackage ReadDiffPackage(const archive::ArchiveFile& archive) {
	const Content content = ReadContent(archive);
	const std::optional<Json::Value> description = ParseJson(content.description);
	if (!description || !description->isObject()) {
		throw Error(std::string("holds no readable ") + kDescriptionName);
	}
	DiffPackage package;
	package.metadata = ReadMetadata(archive);
	for (const std::string& name : description->getMemberNames()) {
		const Json::Value& value = (*description)[name];
		DiffMember member = {name, Text(value, "operation"), Text(value, "input_file")};
		member.kind = KindOf(member.operation, member.input_file);
		if (member.kind != PatchKind::kNone) {
			const auto size = content.sizes.find(member.input_file);
			if (size == content.sizes.end()) {
				throw Error("lacks its member \"" + Printable(member.input_file) + "\"");
			}
			member.size = size->second;
		}
		package.members.push_back(std::move(member));
	}
	MarkDirectories(package.members);
	return package;
}

std::string DescriptionText(const std::vector<DiffMember>& members, const std::vector<std::string>& emptied) {
	Json::Value description(Json::objectValue);
	const auto describe = [&](const std::string& name, const std::string& operation, const std::string& input) {
		Json::Value& value = description[name];
		value["operation"] = operation;
		value["input_file"] = input;
	};
	for (const DiffMember& member : members) {
		describe(member.name, member.operation, member.input_file);
	}
	for (const std::string& name : emptied) {
		describe(name, OperationOf(PatchKind::kEmptied), "");
	}
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "";
	return Json::writeString(builder, description) + "\n";
}

} // namespace tarn::publisher
