#include "dataupdate/internal/patch_names.h"

#include <boost/filesystem/path.hpp>

#include <algorithm>
#include <vector>

namespace tarn::dataupdate {

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

} // namespace tarn::dataupdate
