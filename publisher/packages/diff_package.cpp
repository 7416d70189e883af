#include "publisher/packages/diff_package.h"

#include "archive/extractor.h"
#include "archive/payload.h"
#include "base/error.h"
#include "base/text.h"
#include "decoder/decode.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/device.h"

#include <array>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <optional>
#include <set>
#include <sstream>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

/** What a kind of change is called in a package and by the publisher. */
struct Form {
	const char* name;
	const char* extension;
	const char* operation;
};

const Form& FormOf(PatchKind kind) {
	static constexpr std::array<Form, 5> kForms = {{{"whole", ".new", "create"}, {"vcdiff", ".vcdiff", "update"},
	    {"sql", ".sqlitediff", "update"}, {"none", "", "delete"}, {"dir", "", "delete"}}}; // in the order of the kinds
	static_assert(kForms.size() == static_cast<std::size_t>(PatchKind::kEmptied) + 1);
	return kForms.at(static_cast<std::size_t>(kind));
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
	for (const PatchKind kind : {PatchKind::kWhole, PatchKind::kNone}) {
		if (operation == OperationOf(kind)) {
			return kind;
		}
	}
	for (const PatchKind kind : {PatchKind::kVcdiff, PatchKind::kScript}) {
		const std::string_view extension = PatchKindExtension(kind);
		if (operation == OperationOf(kind) && input_file.size() > extension.size() && EndsWith(input_file, extension)) {
			return kind;
		}
	}
	throw Error("describes an operation that devices do not know, \"" + Printable(operation) + "\" with \"" +
	            Printable(input_file) + "\"");
}

/** Marks deleted names that have deleted names below them: these were directories. */
void MarkDirectories(std::vector<DiffMember>& members) {
	std::set<std::string> above;
	for (const DiffMember& member : members) {
		if (member.kind == PatchKind::kNone) {
			ForEachParent(member.name, [&above](const std::string& parent) { above.insert(parent); });
		}
	}
	for (DiffMember& member : members) {
		if (member.kind == PatchKind::kNone && above.count(member.name) > 0) {
			member.kind = PatchKind::kEmptied;
		}
	}
}

void DoAsDevices(const std::function<void()>& step) {
	try {
		step();
	} catch (const std::exception& error) {
		throw PublishError(std::string("devices could not apply it: ") + error.what());
	}
}

void Apply(const PackageReader& reader, const std::string& id, const std::vector<DiffStep>& steps,
    const std::string& directory, const WorkDirectory& work, const std::function<void(DevicePatcher&)>& install) {
	if (steps.empty()) {
		return;
	}
	const std::string copies = work.Make("apply-copies");
	DevicePatcher patcher(
	    copies, directory, [](const std::string& source, const std::string& output, const std::string& patch) {
		    decoder::DecodeFile(source, output, patch);
	    });
	for (const DiffStep& step : steps) {
		const std::string package = work.Make("apply-package");
		reader.Unpack(step.path, {id, "", step.version, kDiffKind}, package);
		DoAsDevices([&] { patcher.Apply(package); });
		fs::remove_all(package);
	}
	DoAsDevices([&] { install(patcher); });
	fs::remove_all(copies);
}

} // namespace

const char* PatchKindName(PatchKind kind) {
	return FormOf(kind).name;
}

const char* PatchKindExtension(PatchKind kind) {
	return FormOf(kind).extension;
}

const char* OperationOf(PatchKind kind) {
	return FormOf(kind).operation;
}

std::string InputFileName(std::size_t number, PatchKind kind) {
	constexpr int kDigits = 6;
	std::ostringstream name;
	name << "files/" << std::setw(kDigits) << std::setfill('0') << number + 1 << PatchKindExtension(kind);
	return name.str();
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
		DiffMember member = {name, Text(value, "input_file")};
		member.kind = KindOf(Text(value, "operation"), member.input_file);
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
	const auto describe = [&](const std::string& name, PatchKind kind, const std::string& input) {
		Json::Value& value = description[name];
		value["operation"] = OperationOf(kind);
		value["input_file"] = input;
	};
	for (const DiffMember& member : members) {
		describe(member.name, member.kind, member.input_file);
	}
	for (const std::string& name : emptied) {
		describe(name, PatchKind::kEmptied, "");
	}
	return JsonText(description) + "\n";
}

void AddDescription(const std::string& text, const WorkDirectory& work, Tree& content) {
	const std::string path = work / kDescriptionName;
	std::ofstream description(path, std::ios::binary);
	if (!(description << text).flush()) {
		throw PublishError("the package's description could not be written");
	}
	content.files.push_back({kDescriptionName, path, text.size(), false});
}

void ApplyDiffs(const PackageReader& reader, const std::string& id, const std::vector<DiffStep>& steps,
    const std::string& directory, const WorkDirectory& work) {
	Apply(reader, id, steps, directory, work, [](DevicePatcher& patcher) { patcher.Install(); });
}

void ProveDiffs(const PackageReader& reader, const std::string& id, const std::vector<DiffStep>& steps,
    const std::string& directory, const WorkDirectory& work) {
	Apply(reader, id, steps, directory, work, [](DevicePatcher& patcher) {
		patcher.CheckConflicts();
		patcher.Install();
	});
}

} // namespace tarn::publisher
