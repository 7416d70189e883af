#include "patch_description.h"

#include "canonical_path.h"
#include "update_error.h"
#include "utils.h"

#include <boost/filesystem.hpp>

#include <algorithm>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

/** Whether a name stays below whatever directory it is joined to, and has one spelling only. */
bool IsPlainRelative(const std::string& name) {
	if (name.empty() || name.find('\0') != std::string::npos) {
		return false;
	}
	for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
		end = name.find('/', begin);
		const std::string part = name.substr(begin, end == std::string::npos ? end : end - begin);
		if (part.empty() || part == "." || part == "..") {
			return false;
		}
	}
	return true;
}

void CheckInput(const fs::path& package, const std::string& input) {
	boost::system::error_code ignored;
	const fs::path path = package / input;
	const fs::file_status status = fs::symlink_status(path, ignored);
	// A link on the way could lead anywhere, whatever the name looks like. What is missing fails when it is used.
	const bool is_fit =
	    status.type() == fs::file_not_found || (fs::is_regular_file(status) && CanonicalPath(path, ignored) == path);
	if (!IsPlainRelative(input) || !is_fit) {
		throw UpdateError("Illegal input file in diff package: " + input);
	}
}

std::string StringMember(const Json::Value& value, const char* key, const std::string& name) {
	const Json::Value& member = value[key];
	if (!member.isNull() && !member.isString()) {
		throw UpdateError((NoexceptFormat("Invalid %s of %s in diff package") % key % name).str());
	}
	return member.asString();
}

} // namespace

std::vector<PatchMember> ReadPatchDescription(const std::string& package_directory) {
	const std::string path = package_directory + "/patch_infos.json";
	const Json::Value description = IOUtils().ReadJson(path);
	if (!description.isObject()) {
		throw UpdateError("Not a description of patches: " + path);
	}
	boost::system::error_code ignored;
	const fs::path package = CanonicalPath(package_directory, ignored);
	std::vector<PatchMember> members;
	for (const std::string& name : description.getMemberNames()) {
		if (!IsPlainRelative(name)) {
			throw UpdateError("Illegal file name in diff package: " + name);
		}
		const Json::Value& value = description[name];
		if (!value.isObject()) {
			throw UpdateError("Invalid description of " + name + " in diff package");
		}
		const std::string input = StringMember(value, "input_file", name);
		const std::string operation = StringMember(value, "operation", name);
		if (!input.empty() || operation == "create" || operation == "update") {
			CheckInput(package, input);
		}
		members.push_back({name, operation, (NoexceptFormat("%s/%s") % package_directory % input).str()});
	}
	return members;
}

} // namespace tarn::dataupdate
