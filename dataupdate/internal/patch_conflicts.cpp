#include "dataupdate/internal/patch_conflicts.h"

#include "base/sqlite_names.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <set>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

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

void CheckConflicts(const std::map<std::string, ModifyInfo>& modify_infos, const std::string& install_directory) {
	try {
		ConflictCheck(modify_infos, install_directory).Run();
	} catch (const fs::filesystem_error& error) {
		throw UpdateError(std::string("Fail to find conflicts: ") + error.what());
	}
}

} // namespace tarn::dataupdate
