#include "kit/table.h"

#include "base/error.h"
#include "base/sha2.h"

#include <json/json.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

namespace tarn::kit {

namespace {

constexpr char kMagic[] = "tarndbud kit 1";
constexpr int kMostNested = 8;

constexpr std::pair<Kind, const char*> kKinds[] = {
    {Kind::kDocument, "document"}, {Kind::kFull, "full"}, {Kind::kDiff, "diff"}};

const char* KindText(Kind kind) {
	return std::find_if(std::begin(kKinds), std::end(kKinds), [kind](const auto& known) {
		return known.first == kind;
	})->second;
}

Kind ParseKind(const Json::Value& text) {
	const auto* const known = std::find_if(
	    std::begin(kKinds), std::end(kKinds), [&](const auto& candidate) { return text == candidate.second; });
	Require(known != std::end(kKinds), "has a table with a part of unknown kind");
	return known->first;
}

/** As publishers allow them, so that no name can leave a directory or be taken for an option. */
bool IsWord(const std::string& id) {
	constexpr std::size_t kLongest = 64;
	constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
	return !id.empty() && id.size() <= kLongest && id.front() != '.' && id.front() != '-' &&
	       id.find_first_not_of(kAllowed) == std::string::npos;
}

bool IsDigest(const std::string& text) {
	return text.size() == Sha256::kDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::uint64_t LargestOf(Kind kind) {
	return kind == Kind::kDocument ? kMaxDocumentSize : kMaxPartSize;
}

Part ParsePart(const Json::Value& value) {
	Require(value.isObject() && value["size"].isUInt64() && value["sha256"].isString() && value["name"].isString(),
	    "has a table with a part that is not described");
	Part part;
	part.kind = ParseKind(value["kind"]);
	part.size = value["size"].asUInt64();
	part.sha256 = value["sha256"].asString();
	Require(part.size <= LargestOf(part.kind) && IsDigest(part.sha256),
	    "has a table with a size or a digest that cannot be");
	if (part.kind != Kind::kDocument) {
		Require(value["id"].isString() && value["data_version"].isInt() && value["data_version"].asInt() >= 0,
		    "has a table with a package of no database or version");
		part.id = value["id"].asString();
		part.data_version = value["data_version"].asInt();
		Require(IsWord(part.id), "has a table with an id that no database can have");
	}
	Require(value["name"].asString() == NameOf(part), "has a table with a name that does not fit its part");
	return part;
}

Json::Value Parse(const std::string& text) {
	Json::CharReaderBuilder builder;
	Json::CharReaderBuilder::strictMode(&builder.settings_);
	builder["stackLimit"] = kMostNested;
	const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
	Json::Value root;
	std::string errors;
	try {
		Require(reader->parse(text.data(), text.data() + text.size(), &root, &errors), "has a table that is no JSON");
	} catch (const Json::Exception&) {
		throw Error("has a table that is no JSON");
	}
	return root;
}

} // namespace

std::string NameOf(const Part& part) {
	if (part.kind == Kind::kDocument) {
		return kDocumentName;
	}
	return part.id + (part.kind == Kind::kDiff ? "_d" : "_v") + std::to_string(part.data_version) + ".tarn";
}

std::string TableText(const std::vector<Part>& parts) {
	Json::Value root(Json::objectValue);
	root["format"] = kMagic;
	root["parts"] = Json::Value(Json::arrayValue);
	for (const Part& part : parts) {
		Json::Value value(Json::objectValue);
		value["name"] = NameOf(part);
		value["kind"] = KindText(part.kind);
		value["size"] = Json::Value::UInt64{part.size};
		value["sha256"] = part.sha256;
		if (part.kind != Kind::kDocument) {
			value["id"] = part.id;
			value["data_version"] = part.data_version;
		}
		root["parts"].append(std::move(value));
	}
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "\t";
	return Json::writeString(builder, root) + "\n";
}

std::vector<Part> ParseTable(const std::string& text) {
	const Json::Value root = Parse(text);
	Require(root.isObject() && root["format"] == kMagic, "is of a format that this release does not know");
	const Json::Value& values = root["parts"];
	Require(values.isArray() && !values.empty() && values.size() <= kMaxParts, "has a table without parts");
	std::vector<Part> parts;
	std::set<std::string> names;
	for (const Json::Value& value : values) {
		parts.push_back(ParsePart(value));
		Require((parts.back().kind == Kind::kDocument) == (parts.size() == 1),
		    "has a table that does not begin with its one document");
		Require(names.insert(NameOf(parts.back())).second, "has a table that names a part twice");
	}
	return parts;
}

} // namespace tarn::kit
