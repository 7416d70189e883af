/** @file What packages say about themselves, and when the installed data was published, kept beside the record. */
#ifndef HOST_LIBRARY_INSTALLED_PACKAGE_H
#define HOST_LIBRARY_INSTALLED_PACKAGE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace tarn::ctl {

/** A package's signed metadata, as far as it matters here. */
struct OpenedPackage {
	int data_version = -1;
	std::optional<std::int64_t> published; ///< In seconds since 1970; a package need not tell.
};

/**
 * The packages that one operation opens. Listens to the platform's code-signing library where that tells of packages,
 * as the one for stock Linux does; with another one nothing is ever known. One object at a time is listening, in the
 * thread that opens packages.
 */
class OpenedPackages {
public:
	/** @param expected  the only version that gets in; none: any */
	explicit OpenedPackages(std::optional<int> expected = std::nullopt);
	~OpenedPackages();
	OpenedPackages(const OpenedPackages&) = delete;
	OpenedPackages& operator=(const OpenedPackages&) = delete;

	/** The database's last package that was let in. */
	std::optional<OpenedPackage> Last(const std::string& id) const;

	/** What the platform calls; returns null to let a package in, or the reason against it, valid until the next call.
	 */
	const char* Hear(const char* metadata) noexcept;

private:
	std::string Note(const char* metadata);

	std::map<std::string, OpenedPackage> last_; // by id
	std::optional<int> expected_;
	std::string objection_;
};

/** Why the platform refused a package; told by the thread that was refused. */
struct PackageRefusal {
	bool not_asked_for = false; ///< The package is whole and signed, but not the one that was asked for.
	std::string reason;
};

/** No value when the last package was not refused, and with a platform that does not tell. */
std::optional<PackageRefusal> LastPackageRefusal();

std::string InstalledPackagePath(const std::string& id);

/**
 * Drops the record, to be called before the library's record changes: a run that is killed in between leaves a database
 * whose age is unknown, and never one with the age of other data. Throws CommandError naming the path.
 */
void ForgetInstalledPackage(const std::string& id);

/**
 * Records what was installed, to be called when the library's record has changed. A package that does not tell when it
 * was published leaves no record. A record that cannot be written is told to the system log only.
 */
void RecordInstalledPackage(const std::string& id, const OpenedPackage& package);

/**
 * When the installed data was published, in seconds since 1970; no value when that is unknown.
 *
 * @param installed_version  from the library's record: a record of another version is one of earlier data
 */
std::optional<std::int64_t> PublicationTime(const std::string& id, int installed_version);

} // namespace tarn::ctl

#endif
