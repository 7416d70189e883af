#include "archive/package_identity.h"

#include "base/text.h"

#include <json/reader.h>
#include <json/value.h>

#include <memory>

namespace tarn::archive {

namespace {

/** What a data-update package says about itself in its signed metadata. */
struct PackageIdentity {
	std::string id;
	bool is_diff = false;
	int data_version = 0;
	int base_version = 0; // of a diff package: the version that it starts from
};

// What a package says about itself is flat, or nearly so.
constexpr int kMostLevels = 32;
// No file's name is longer, so a longer id fits none and needs no more room in a log.
constexpr std::size_t kLongestName = 255;

std::unique_ptr<Json::CharReader> StrictReader() {
	Json::CharReaderBuilder builder;
	Json::CharReaderBuilder::strictMode(&builder.settings_);
	builder["stackLimit"] = kMostLevels;
	return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

Json::Value ParseObject(std::string_view text) {
	constexpr const char* kProblem = "its metadata is no JSON object";
	Json::Value value;
	try {
		// The reader would take a zero byte for the end of the text.
		const bool readable = text.find('\0') == std::string_view::npos &&
		                      StrictReader()->parse(text.data(), text.data() + text.size(), &value, nullptr);
		Require(readable && value.isObject(), kProblem);
	} catch (const Json::Exception&) {
		throw Error(kProblem); // nested too deeply
	}
	return value;
}

/** Written as an integer, and not as 3.0 or 3e0. */
bool IsInteger(const Json::Value& value) {
	return value.type() == Json::intValue || value.type() == Json::uintValue;
}

int ReadVersion(const Json::Value& value, const char* problem) {
	Require(IsInteger(value) && value.isInt(), problem);
	return value.asInt();
}

std::string Shown(std::string_view name) {
	return Printable(name.substr(0, kLongestName));
}

std::string Describe(const PackageIdentity& package) {
	const std::string version = std::to_string(package.data_version);
	return package.is_diff ? "the diff package of " + Shown(package.id) + " from version " +
	                             std::to_string(package.base_version) + " to " + version
	                       : "the full package of " + Shown(package.id) + ", version " + version;
}

bool IsNumber(std::string_view text) {
	return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/** What is asked for by a file's name, for people. */
std::string DescribeName(const std::string& file_name) {
	const std::size_t end = file_name.rfind('_');
	const std::string_view part =
	    std::string_view(file_name).substr(end == std::string::npos ? file_name.size() : end + 1);
	const std::string id = Shown(std::string_view(file_name).substr(0, end));
	if (part == "debug") {
		return "a full package of " + id;
	}
	if (!part.empty() && IsNumber(part.substr(1)) && (part.front() == 'v' || part.front() == 'd')) {
		const std::string version(part.substr(1));
		return part.front() == 'v' ? "the full package of " + id + ", version " + version
		                           : "the diff package of " + id + " to version " + version;
	}
	return "a package under the name " + Shown(file_name) + ", which no package of data updates has,";
}

bool HasName(const PackageIdentity& package, const std::string& file_name) {
	const std::string version = std::to_string(package.data_version);
	if (package.is_diff) {
		return file_name == package.id + "_d" + version && package.base_version == package.data_version - 1;
	}
	return file_name == package.id + "_v" + version || file_name == package.id + "_debug";
}

/** As docs/formats.md describes it; throws Error saying what is wrong in it. */
PackageIdentity ReadPackageIdentity(std::string_view metadata) {
	const Json::Value value = ParseObject(metadata);
	PackageIdentity package;
	Require(value["id"].isString(), "its \"id\" is no string");
	package.id = value["id"].asString();
	Require(value["kind"] == "full" || value["kind"] == "diff", R"(its "kind" is neither "full" nor "diff")");
	package.is_diff = value["kind"] == "diff";
	constexpr const char* kNoVersion = "its \"data_version\" is no integer from 0 to 2147483647";
	package.data_version = ReadVersion(value["data_version"], kNoVersion);
	Require(package.data_version >= 0, kNoVersion);
	if (package.is_diff) {
		package.base_version = ReadVersion(value["base_version"], "its \"base_version\" is no integer");
	}
	const Json::Value& published = value["published"];
	Require(!value.isMember("published") || (IsInteger(published) && published.isInt64() && published.asInt64() >= 0),
	    "its \"published\" is no number of seconds since 1970");
	return package;
}

PackageIdentity ReadIdentityOf(std::string_view metadata, const std::string& file_name) {
	try {
		return ReadPackageIdentity(metadata);
	} catch (const Error& error) {
		throw NotAskedFor(
		    DescribeName(file_name) + " is asked for, and this package does not tell what it is: " + error.what());
	}
}

} // namespace

void RequireAskedFor(std::string_view metadata, const std::string& file_name) {
	const PackageIdentity package = ReadIdentityOf(metadata, file_name);
	if (!HasName(package, file_name)) {
		throw NotAskedFor(DescribeName(file_name) + " is asked for, and this is " + Describe(package));
	}
}

} // namespace tarn::archive
