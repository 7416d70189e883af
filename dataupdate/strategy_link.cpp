#include "dataupdate/file_lock.h"
#include "dataupdate/internal/extract_package.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/internal/temp_data.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

namespace tarn::dataupdate {

ForceInstallByLink::ForceInstallByLink(const std::string& id, const std::string& link, const std::string& volume,
    const std::string& installPrefix, const std::string& rootDirectory)
    : id_(id), link_(link), temp_base_(volume), install_directory_(installPrefix), root_directory_(rootDirectory) {}

ForceInstallByLink::~ForceInstallByLink() {
	if (!package_path_.empty()) {
		CleanTarball(package_path_);
	}
	CleanTmpData(TempDirPath(temp_base_));
}

void ForceInstallByLink::PrepareUpdate() {
	const IOUtils io;
	package_path_ = TempPath(temp_base_, id_, "debug");
	io.TarnMkdir(TempDirPath(temp_base_));
	RemoveLink(package_path_);
	io.Download(package_path_, link_);
	io.TarnMkdir(install_directory_);
}

void ForceInstallByLink::ApplyUpdate() {
	try {
		const FileLock lock(UsingLockPath(id_), kLockTimeout);
		ExtractPackage(package_path_, install_directory_, [this] { AnnounceReplacement(id_); });
	} catch (const std::exception& error) {
		throw UpdateError(std::string(messages::kForceInstall) + error.what());
	}
}

} // namespace tarn::dataupdate
