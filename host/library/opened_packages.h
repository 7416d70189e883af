/** @file What the packages say about themselves that the platform opens for this process. */
#ifndef HOST_LIBRARY_OPENED_PACKAGES_H
#define HOST_LIBRARY_OPENED_PACKAGES_H

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace tarn::ctl {

/** A package's signed metadata, as far as it matters here. */
struct OpenedPackage {
	int data_version = -1;
	std::optional<int64_t> published; ///< In seconds since 1970; a package need not tell.
};

/**
 * Listens to the platform's code-signing library where that tells of packages, as the one for stock Linux does. With
 * another one nothing is ever heard, and whoever asks learns that nothing is known. One object at a time is listening.
 */
class OpenedPackages {
public:
	OpenedPackages();
	~OpenedPackages();
	OpenedPackages(const OpenedPackages&) = delete;
	OpenedPackages& operator=(const OpenedPackages&) = delete;

	/** The last package of a database that was opened. */
	std::optional<OpenedPackage> Last(const std::string& id) const;

	/**
	 * From now on no package of another version gets in. A forced package's file name says nothing about the version,
	 * so that the platform alone could not tell an older package that was put in its place.
	 */
	void ExpectVersion(int version);

	/** What the platform calls; returns null to let a package in, or the reason against it, valid until the next call.
	 */
	const char* Hear(const char* metadata) noexcept;

private:
	std::string Note(const char* metadata);

	mutable std::mutex mutex_;
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

} // namespace tarn::ctl

#endif
