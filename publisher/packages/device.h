/** @file What devices do with packages, by the library's own code: no other unit of the publisher sees it. */
#ifndef PUBLISHER_PACKAGES_DEVICE_H
#define PUBLISHER_PACKAGES_DEVICE_H

#include "publisher/common/publish_error.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarn::dataupdate {
class Patcher;
}

namespace tarn::publisher {

/** The code of devices refuses a package or a script. */
class DeviceError : public PublishError {
public:
	using PublishError::PublishError;
};

/** The largest "patch_infos.json" that devices read. */
extern const std::uint64_t kMaxDescriptionBytes;

/** The name of the working copy that devices make of a file. */
std::string WorkingCopyName(const std::string& name);

/** Copies a file to a path that must not exist, without its data where the file system can share them. */
void CopyFile(const std::string& source, const std::string& copy);

/** The digest of a file's content, as devices record it. */
std::string DigestOf(const std::string& path);

/** Executes a script on a database file; throws DeviceError also when a slower device might need too much time. */
void ExecuteScript(const std::string& database, const std::string& script);

/** Applies a chain of diff packages to the files of a tree. */
class DevicePatcher {
public:
	/** Makes an output from a source by a VCDIFF patch, or throws. */
	using Decoder = std::function<void(const std::string& source, const std::string& output, const std::string& patch)>;

	/** @param copies  an empty directory for working copies */
	DevicePatcher(const std::string& copies, const std::string& tree, const Decoder& decoder);
	DevicePatcher(const DevicePatcher&) = delete;
	DevicePatcher& operator=(const DevicePatcher&) = delete;
	~DevicePatcher();

	/** Applies an unpacked package to the working copies; throws DeviceError, or what the decoder throws. */
	void Apply(const std::string& package);
	/** Throws DeviceError where devices with the tree's files would refuse to put the working copies in place. */
	void CheckConflicts() const;
	/** Puts the working copies in place; throws DeviceError, or Boost's filesystem error. */
	void Install();

private:
	std::string tree_;
	std::unique_ptr<dataupdate::Patcher> patcher_;
};

} // namespace tarn::publisher

#endif
