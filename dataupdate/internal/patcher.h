/** @file Carrying out diff packages on working copies. */
#ifndef DATAUPDATE_INTERNAL_PATCHER_H
#define DATAUPDATE_INTERNAL_PATCHER_H

#include "dataupdate/strategy.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace tarn::dataupdate {

/**
 * Applies a chain of unpacked diff packages to copies of installed files, which stay as they are until Install(). Every
 * file has one working copy for the whole chain, whose name is flat: FlatFileName(). Failures are UpdateError. The
 * publisher checks its packages by the same class.
 */
class Patcher {
public:
	/** Makes output from source by a VCDIFF patch; throws, and leaves no output, when that fails. */
	using Decoder = std::function<void(const std::string& source, const std::string& output, const std::string& patch)>;

	/** Tells the SHA-384 of an installed file by its plain name; nothing when it is not known. */
	using KnownDigest = std::function<std::optional<std::string>(const std::string& name)>;

	/**
	 * @param accumulation_directory  an empty directory for the working copies
	 * @param install_directory       the database's files
	 * @param decoder                 whatever it throws leaves ApplyPackage() as it is
	 * @param known_digest            tells what is known of the installed files. A patch tells itself that a file is
	 * not the one it was made for; before a script this is what does
	 */
	Patcher(std::string accumulation_directory, std::string install_directory, Decoder decoder,
	    KnownDigest known_digest = {});

	/** Has a function called with each working copy that is ready. Before the last package: others change copies again.
	 */
	void TellOfCopies(std::function<void(const std::string& working_copy)> tell) { tell_ = std::move(tell); }

	/**
	 * Applies one package. Throws ReadPatchDescription()'s errors before anything is patched, "Unknown operation <x>
	 * for file <name>", "Unsupported diff type: <extension>", "Fail to get exists info from <working copy>", "Working
	 * copies of <name> and <name> collide", "Names <name> and <name> mean one file", "Not a regular file: <working
	 * copy>" where a link would be patched, "File <path> digest check fail",
	 * IOUtils::CopyFile()'s and the decoder's errors, "Fail to keep permissions: <why>", "Failt to delete <path>" and
	 * ExecuteSqlScript()'s.
	 */
	void ApplyPackage(const std::string& package_directory);

	/** What the chain so far does, by file name. */
	[[nodiscard]] const std::map<std::string, ModifyInfo>& Modifications() const { return modify_infos_; }

	/**
	 * Modifications() by their plain names, to be asked for before readers are held off. Throws UpdateError "Not a
	 * regular file: <working copy>" when a package created something else.
	 */
	[[nodiscard]] std::map<std::string, ModifyInfo> CheckedChanges() const;

	/**
	 * InstallChanges() in the install directory, with CheckedChanges(). For the publisher's proof, which has no
	 * readers; devices install through StagedChanges.
	 */
	void Install(const std::map<std::string, ModifyInfo>& changes) const;

private:
	void _PatchFile(const std::string& name, const std::string& operation, const std::string& input);
	/** Makes the first copy of a file, executes a script on it, and looks whether the file is what was recorded. */
	void _PatchInstalled(const std::string& name, const std::string& database, const std::string& script) const;
	void _UpdateFile(const std::string& name, const std::string& working_copy, const std::string& input);
	void _DoVcPatch(const std::string& file, const std::string& patch) const;
	/** Keeps one file from having two working copies by two spellings of its name. */
	void _ClaimFile(const std::string& name);
	std::string _ClaimWorkingCopy(const std::string& name);
	void _Record(const std::string& name, std::int32_t operation, const std::string& source);

	std::string accumulation_directory_;
	std::string install_directory_;
	Decoder decoder_;
	KnownDigest known_digest_;
	std::function<void(const std::string& working_copy)> tell_;
	std::map<std::string, std::string> names_of_copies_; // By flat name, the name that it was made from.
	std::map<std::string, std::string> spellings_;       // By shortest spelling, the one that the chain uses.
	std::map<std::string, ModifyInfo> modify_infos_;
};

} // namespace tarn::dataupdate

#endif
