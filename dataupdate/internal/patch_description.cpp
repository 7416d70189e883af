#include "dataupdate/internal/patch_description.h"

#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>
#include <boost/filesystem/path.hpp>

#include <algorithm>
#include <array>
#include <fstream>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

std::vector<std::string> PartsOf(const std::string& name) {
	std::vector<std::string> parts;
	for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
		end = name.find('/', begin);
		parts.push_back(name.substr(begin, end == std::string::npos ? end : end - begin));
	}
	return parts;
}

bool IsNoStep(const std::string& part) {
	return part.empty() || part == ".";
}

/**
 * Whether a link is on the way to an input file: what it leads to is not covered by the package's signature. The new
 * content of a file may itself be a link, which is copied as a link.
 */
bool PassesALink(const fs::path& package, const fs::path& input, bool may_be_link) {
	fs::path path = package;
	for (const fs::path& part : input) {
		path /= part;
		boost::system::error_code ignored;
		const bool is_last = path == package / input;
		if (fs::is_symlink(fs::symlink_status(path, ignored)) && !(is_last && may_be_link)) {
			return true;
		}
	}
	return false;
}

void CheckInput(const std::string& package, const std::string& input, const std::string& operation) {
	// What is missing or no file fails when it is used.
	if (!StaysBelow(input) || PassesALink(package, input, operation == "create")) {
		throw UpdateError("Illegal input file in diff package: " + input);
	}
}

/** Parsed, a value takes a hundred times the bytes of its shortest text: neither length nor number may be any. */
void CheckSize(const std::string& path) {
	std::ifstream file(path, std::ios::binary);
	std::array<char, 1U << 16U> block{};
	std::uint64_t size = 0;
	std::uint64_t values = 0;
	while (file.read(block.data(), block.size()), file.gcount() > 0) {
		size += static_cast<std::uint64_t>(file.gcount());
		values += static_cast<std::uint64_t>(std::count_if(block.begin(), block.begin() + file.gcount(),
		    [](char byte) { return byte == ',' || byte == '{' || byte == '['; }));
		if (size > kMaxDescriptionBytes || values > kMaxDescriptionValues) {
			throw UpdateError("Too large a description of patches: " + path);
		}
	}
	// What ended here before its end has not been checked.
	if (file.bad()) {
		throw UpdateError("Fail to read: " + path);
	}
}

} // namespace

bool StaysBelow(const std::string& name) {
	const std::vector<std::string> parts = PartsOf(name);
	const bool is_absolute = !name.empty() && name.front() == '/';
	return !is_absolute && name.find('\0') == std::string::npos && std::count(parts.begin(), parts.end(), "..") == 0;
}

bool IsFileNameBelow(const std::string& name) {
	return StaysBelow(name) && !IsNoStep(PartsOf(name).back());
}

std::string PlainName(const std::string& name) {
	std::string plain;
	for (const std::string& part : PartsOf(name)) {
		if (!IsNoStep(part)) {
			plain += (plain.empty() ? "" : "/") + part;
		}
	}
	return plain;
}

std::string JoinPath(const std::string& root, const std::string& path) {
	const boost::filesystem::path right(path);
	return right.is_absolute() ? path : (boost::filesystem::path(root) / right).string();
}

std::map<std::string, ModifyInfo> ByPlainName(const std::map<std::string, ModifyInfo>& modify_infos) {
	std::map<std::string, ModifyInfo> by_plain_name;
	for (const auto& [name, info] : modify_infos) {
		by_plain_name.emplace(PlainName(name), info);
	}
	return by_plain_name;
}

std::vector<PatchMember> ReadPatchDescription(const std::string& package_directory) {
	const std::string path = package_directory + "/patch_infos.json";
	CheckSize(path);
	const Json::Value description = IOUtils().ReadJson(path);
	std::vector<PatchMember> members;
	for (const std::string& name : description.getMemberNames()) {
		if (!IsFileNameBelow(name)) {
			throw UpdateError("Illegal file name in diff package: " + name);
		}
		const Json::Value& value = description[name];
		const std::string operation = value["operation"].asString();
		const std::string input = value["input_file"].asString();
		CheckInput(package_directory, input, operation);
		members.push_back({name, operation, (NoexceptFormat("%s/%s") % package_directory % input).str()});
	}
	return members;
}

} // namespace tarn::dataupdate
