#include "dataupdate/internal/patch_description.h"

#include "base/sqlite_names.h"
#include "base/text.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <algorithm>
#include <array>
#include <fstream>
#include <set>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

/** "./a//b" names a file, but neither "a/" nor "." does. */
bool NamesAFile(const std::string& name) {
	const std::string last = name.substr(name.rfind('/') + 1);
	return !last.empty() && last != ".";
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

class ConflictCheck {
public:
	ConflictCheck(const std::map<std::string, ModifyInfo>& modify_infos, const std::string& install_directory)
	    : modify_infos_(ByPlainName(modify_infos)), install_directory_(install_directory) {}

	void Run() {
		for (const auto& [name, info] : modify_infos_) {
			if (info.operation == ModifyInfo::kOverride) {
				CheckAbove(name);
				CheckBelow(name);
				CheckJournals(name);
			}
		}
	}

private:
	fs::path Installed(const std::string& name) const { return fs::path(install_directory_) / name; }

	bool IsModified(const std::string& name, std::int32_t operation) const {
		const auto found = modify_infos_.find(name);
		return found != modify_infos_.end() && found->second.operation == operation;
	}

	/** What is above a new file is a directory, will be made one, or is a file that the chain deletes. */
	void CheckAbove(const std::string& name) {
		for (std::size_t end = name.find('/'); end != std::string::npos; end = name.find('/', end + 1)) {
			const std::string above = name.substr(0, end);
			if (!known_directories_.insert(above).second) {
				continue;
			}
			const fs::file_status status = fs::symlink_status(Installed(above));
			const bool is_free =
			    !fs::exists(status) || fs::is_directory(status) || IsModified(above, ModifyInfo::kDelete);
			if (!is_free || IsModified(above, ModifyInfo::kOverride)) {
				Refuse(name, Installed(above));
			}
		}
	}

	void CheckBelow(const std::string& name) const {
		if (!fs::is_directory(fs::symlink_status(Installed(name)))) {
			return;
		}
		const std::string prefix = install_directory_ + "/";
		const auto check = [&](const std::string& entry) {
			if (!fs::is_directory(fs::symlink_status(entry)) &&
			    !IsModified(entry.substr(prefix.size()), ModifyInfo::kDelete)) {
				Refuse(name, entry);
			}
		};
		IOUtils().IterateDirectory(prefix + name, check, true);
	}

	/** SQLite would play an old journal back into the new file. */
	void CheckJournals(const std::string& name) const {
		for (const char* suffix : {kSqliteLog, kSqliteJournal}) {
			const fs::path journal = Installed(name + suffix);
			if (modify_infos_.count(name + suffix) == 0 && fs::is_regular_file(fs::symlink_status(journal)) &&
			    fs::file_size(journal) > 0) {
				Refuse(name, journal);
			}
		}
	}

	[[noreturn]] static void Refuse(const std::string& name, const fs::path& path) {
		throw UpdateError((NoexceptFormat("In the way of %s: %s") % name % path.string()).str());
	}

	const std::map<std::string, ModifyInfo> modify_infos_;
	const std::string& install_directory_;
	std::set<std::string> known_directories_;
};

} // namespace

bool StaysBelow(const std::string& name) {
	const std::vector<std::string> steps = PathSteps(name);
	const bool is_absolute = !name.empty() && name.front() == '/';
	return !is_absolute && name.find('\0') == std::string::npos && std::count(steps.begin(), steps.end(), "..") == 0;
}

std::string PlainName(const std::string& name) {
	return JoinSteps(PathSteps(name));
}

std::string JoinPath(const std::string& root, const std::string& path) {
	const fs::path right(path);
	return right.is_absolute() ? path : (fs::path(root) / right).string();
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
		if (!StaysBelow(name) || !NamesAFile(name)) {
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

void CheckConflicts(const std::map<std::string, ModifyInfo>& modify_infos, const std::string& install_directory) {
	try {
		ConflictCheck(modify_infos, install_directory).Run();
	} catch (const fs::filesystem_error& error) {
		throw UpdateError(std::string("Fail to find conflicts: ") + error.what());
	}
}

} // namespace tarn::dataupdate
