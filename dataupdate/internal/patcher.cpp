#include "dataupdate/internal/patcher.h"

#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/changes.h"
#include "dataupdate/internal/digests_ahead.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/internal/sql_script.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

bool ExistsOrThrow(const std::string& path) {
	try {
		return fs::exists(fs::status(path));
	} catch (const fs::filesystem_error&) {
		throw UpdateError("Fail to get exists info from " + path);
	}
}

[[noreturn]] void RefuseAsNotRegular(const std::string& path) {
	throw UpdateError("Not a regular file: " + path);
}

/** A link would let a patch change the file that it leads to. Whatever else is no file fails by itself. */
void CheckNoLink(const std::string& path) {
	boost::system::error_code ignored;
	if (fs::is_symlink(fs::symlink_status(path, ignored))) {
		RefuseAsNotRegular(path);
	}
}

/** Whether the one file that was asked about has a digest; not when nobody can tell. */
bool HasDigest(DigestsAhead& digest, const std::string& expected) {
	try {
		return digest.Next() == expected;
	} catch (const fs::filesystem_error&) {
		return false;
	}
}

/** Whether a file was written to or replaced, so that a copy made before may hold anything. */
bool HasChanged(const std::string& path, const struct stat& before) {
	struct stat now {};
	return stat(path.c_str(), &now) != 0 || now.st_dev != before.st_dev || now.st_ino != before.st_ino ||
	       now.st_size != before.st_size || now.st_mtim.tv_sec != before.st_mtim.tv_sec ||
	       now.st_mtim.tv_nsec != before.st_mtim.tv_nsec;
}

/**
 * Gives a file another content; whatever made that knows nothing of the file's permissions. The content is moved where
 * that can be done.
 */
void ReplaceContent(const std::string& file, const std::string& content) {
	try {
		const fs::perms permissions = fs::status(file).permissions();
		if (!fs::is_regular_file(fs::symlink_status(content)) || rename(content.c_str(), file.c_str()) != 0) {
			IOUtils().CopyFile(content, file);
		}
		fs::permissions(file, permissions);
	} catch (const fs::filesystem_error& error) {
		throw UpdateError(std::string("Fail to keep permissions: ") + error.what());
	}
}

} // namespace

Patcher::Patcher(
    std::string accumulation_directory, std::string install_directory, Decoder decoder, KnownDigest known_digest)
    : accumulation_directory_(std::move(accumulation_directory)),
      install_directory_(std::move(install_directory)),
      decoder_(std::move(decoder)),
      known_digest_(std::move(known_digest)) {}

void Patcher::ApplyPackage(const std::string& package_directory) {
	for (const PatchMember& member : ReadPatchDescription(package_directory)) {
		_PatchFile(member.name, member.operation, member.input);
	}
}

std::map<std::string, ModifyInfo> Patcher::CheckedChanges() const {
	std::map<std::string, ModifyInfo> changes = ByPlainName(modify_infos_);
	// All sources, so that the first file is not replaced when the last one cannot be.
	for (const auto& [name, info] : changes) {
		boost::system::error_code ignored;
		if (info.operation == ModifyInfo::kOverride && !fs::is_regular_file(fs::status(info.source, ignored))) {
			RefuseAsNotRegular(info.source);
		}
	}
	return changes;
}

void Patcher::Install(const std::map<std::string, ModifyInfo>& changes) const {
	InstallChanges(changes, install_directory_);
}

void Patcher::_PatchFile(const std::string& name, const std::string& operation, const std::string& input) {
	const ActivityScope activity(Phase::kPatch, (fs::path(install_directory_) / name).string());
	_ClaimFile(name);
	const bool is_new = operation == "create";
	if (is_new || operation == "update") {
		const std::string working_copy = _ClaimWorkingCopy(name);
		is_new ? IOUtils().CopyFile(input, working_copy) : _UpdateFile(name, working_copy, input);
		_Record(name, ModifyInfo::kOverride, working_copy);
	} else if (operation == "delete") {
		_Record(name, ModifyInfo::kDelete, accumulation_directory_ + "/" + FlatFileName(name));
	} else {
		throw UpdateError((NoexceptFormat("Unknown operation %s for file %s") % operation % name).str());
	}
}

void Patcher::_PatchInstalled(const std::string& name, const std::string& database, const std::string& script) const {
	const std::string installed = (fs::path(install_directory_) / name).string();
	struct stat before {};
	const bool is_known = stat(installed.c_str(), &before) == 0;
	IOUtils().CopyFile(installed, database);
	CheckNoLink(database);
	const std::optional<std::string> known = known_digest_ ? known_digest_(name) : std::nullopt;
	boost::system::error_code ignored;
	if (!known || !fs::is_regular_file(fs::symlink_status(database, ignored))) {
		ExecuteSqlScript(database, script);
		return;
	}
	// While the script changes the copy. Whatever a script says of another file than its own is of no interest.
	DigestsAhead digest({installed}, DigestsAhead::Caller::kHasOtherWork);
	std::exception_ptr failure;
	try {
		ExecuteSqlScript(database, script);
	} catch (const UpdateError&) {
		failure = std::current_exception();
	}
	if (!is_known || !HasDigest(digest, *known) || HasChanged(installed, before)) {
		throw UpdateError((NoexceptFormat("File %s digest check fail") % installed).str());
	}
	if (failure) {
		std::rethrow_exception(failure);
	}
}

void Patcher::_UpdateFile(const std::string& name, const std::string& working_copy, const std::string& input) {
	const std::string extension = fs::path(input).extension().string();
	const bool is_first = !ExistsOrThrow(working_copy);
	if (is_first && extension == ".sqlitediff") {
		_PatchInstalled(PlainName(name), working_copy, input);
		return;
	}
	if (is_first) {
		IOUtils().CopyFile((fs::path(install_directory_) / PlainName(name)).string(), working_copy);
	}
	CheckNoLink(working_copy);
	if (extension == ".vcdiff") {
		_DoVcPatch(working_copy, input);
	} else if (extension == ".sqlitediff") {
		ExecuteSqlScript(working_copy, input);
	} else {
		throw UpdateError("Unsupported diff type: " + extension);
	}
}

void Patcher::_DoVcPatch(const std::string& file, const std::string& patch) const {
	const std::string output = file + ".patchout";
	decoder_(file, output, patch);
	ReplaceContent(file, output);
	if (unlink(output.c_str()) != 0 && errno != ENOENT) { // It has been moved.
		throw UpdateError("Failt to delete " + output);
	}
}

void Patcher::_ClaimFile(const std::string& name) {
	const std::string& spelling = spellings_.emplace(PlainName(name), name).first->second;
	if (spelling != name) {
		throw UpdateError((NoexceptFormat("Names %s and %s mean one file") % spelling % name).str());
	}
}

std::string Patcher::_ClaimWorkingCopy(const std::string& name) {
	const std::string flat = FlatFileName(name);
	const std::string& owner = names_of_copies_.emplace(flat, name).first->second;
	if (owner != name) {
		throw UpdateError((NoexceptFormat("Working copies of %s and %s collide") % owner % name).str());
	}
	return accumulation_directory_ + "/" + flat;
}

void Patcher::_Record(const std::string& name, std::int32_t operation, const std::string& source) {
	modify_infos_[name] = {operation, source};
	if (tell_ && operation == ModifyInfo::kOverride) {
		tell_(source);
	}
}

} // namespace tarn::dataupdate
