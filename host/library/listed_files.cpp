#include "host/library/listed_files.h"

#include "base/text.h"
#include "dataupdate/utils.h"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <utility>

namespace tarn::ctl {

using dataupdate::InstalledRecord;

namespace {

/** Whether a name has no part that another spelling of it would leave out. */
bool IsPlain(std::string_view name) {
	for (std::size_t begin = 0; begin <= name.size();) {
		const std::size_t end = std::min(name.find('/', begin), name.size());
		const std::string_view part = name.substr(begin, end - begin);
		if (part.empty() || part == "." || part == "..") {
			return false;
		}
		begin = end + 1;
	}
	return true;
}

} // namespace

std::optional<std::string> RelativeName(const std::string& name, const std::string& install_prefix) {
	const std::string_view below = std::string_view(name).substr(std::min(install_prefix.size(), name.size()));
	if (StartsWith(name, install_prefix) && StartsWith(below, "/") && IsPlain(below.substr(1))) {
		return std::string(below.substr(1)); // Nearly every name; paths take long for many.
	}
	const std::filesystem::path path = std::filesystem::path(name).lexically_normal();
	const std::filesystem::path relative = path.is_absolute() ? path.lexically_relative(install_prefix) : path;
	if (relative.empty() || *relative.begin() == ".." || relative == ".") {
		return std::nullopt;
	}
	return relative.string();
}

bool ListsAllFiles(const InstalledRecord& record) {
	for (std::size_t at = 0; at < record.files.Size(); ++at) {
		if (!StartsWith(record.files.Name(at), "/")) {
			return false;
		}
	}
	return !record.files.IsEmpty();
}

const std::string& DigestOfNothing() {
	static const std::string kDigest = [] {
		std::istringstream nothing;
		return dataupdate::GetSha384(nothing);
	}();
	return kDigest;
}

bool IsListedDirectory(const std::string& digest, const std::string& path) {
	std::error_code ignored;
	return digest == DigestOfNothing() && std::filesystem::is_directory(std::filesystem::symlink_status(path, ignored));
}

bool Agree(const InstalledFiles& record, const InstalledRecord& listed, const std::string& install_prefix) {
	if (record.data_version != listed.data_version ||
	    (ListsAllFiles(listed) && record.files.Size() != listed.files.Size())) {
		return false;
	}
	for (std::size_t at = 0; at < listed.files.Size(); ++at) {
		const std::string digest = listed.files.Text(at);
		const auto name = RelativeName(std::string(listed.files.Name(at)), install_prefix);
		const auto file = name ? record.files.Find(*name) : std::nullopt;
		const bool agree =
		    file ? file->sha384_digest == digest : name && IsListedDirectory(digest, install_prefix + "/" + *name);
		if (!agree) {
			return false;
		}
	}
	return true;
}

std::optional<InstalledFiles> ReadCredibleFiles(
    const std::string& id, const InstalledRecord& listed, const std::string& install_prefix) {
	if (dataupdate::IsReplacementMarked(id)) {
		return std::nullopt;
	}
	std::optional<InstalledFiles> record = ReadInstalledFiles(id);
	return record && Agree(*record, listed, install_prefix) ? std::move(record) : std::nullopt;
}

} // namespace tarn::ctl
