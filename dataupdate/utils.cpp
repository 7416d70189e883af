#include "dataupdate/utils.h"

#include "base/unique_fd.h"
#include "dataupdate/internal/directories.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/messages.h"
#include "dataupdate/update_error.h"

#include <tarncore/tarncore.h>

#include <boost/filesystem.hpp>
#include <json/reader.h>
#include <json/writer.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

// The reader and writer that define the files' form are deprecated for their defaults, which are wanted here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool ParseJson(std::istream& in, Json::Value& root) {
	try {
		return Json::Reader().parse(in, root, true);
	} catch (const Json::Exception&) {
		return false; // The reader's way to refuse a document that is nested too deeply.
	} catch (const std::ios_base::failure&) {
		return false; // A disk error, or a directory in the file's place.
	}
}

void PrintJson(std::ostream& out, const Json::Value& value) {
	Json::StyledStreamWriter("\t").write(out, value);
}

#pragma GCC diagnostic pop

void CheckIsDirectory(const std::string& path) {
	struct stat status {};
	if (stat(path.c_str(), &status) != 0) {
		throw UpdateError("failed to read file stat: " + path);
	}
	if (!S_ISDIR(status.st_mode)) {
		throw UpdateError("not a directory: " + path);
	}
}

DirectoryEntries ReadEntries(const std::string& path) {
	const DirectoryHandle handle(opendir(path.c_str()));
	if (!handle) {
		throw UpdateError(std::strerror(errno));
	}
	return DirectoryEntries(handle.get());
}

/** 0 for anything but a regular file, and for a missing one. */
std::uintmax_t RegularFileBytes(const std::string& path) {
	struct stat status {};
	if (stat(path.c_str(), &status) == 0) {
		return S_ISREG(status.st_mode) ? static_cast<std::uintmax_t>(status.st_size) : 0;
	}
	if (errno != ENOENT && errno != ENOTDIR) {
		throw fs::filesystem_error("stat", path, boost::system::error_code(errno, boost::system::system_category()));
	}
	return 0;
}

void CopyByType(const std::string& src, const std::string& dst) {
	const fs::file_status status = fs::symlink_status(src);
	if (fs::is_symlink(status)) {
		fs::copy_symlink(src, dst);
	} else if (fs::is_directory(status)) {
		fs::create_directory(dst, fs::path(src));
	} else {
		CopyRegularFile(src, dst);
	}
}

} // namespace

IOUtils::~IOUtils() = default;

std::uintmax_t IOUtils::GetSize(const std::string& path) const {
	try {
		std::uintmax_t total = RegularFileBytes(path);
		if (fs::is_directory(fs::status(path))) {
			IterateDirectory(
			    path, [&total](const std::string& entry) { total += RegularFileBytes(entry); }, true);
		}
		return total;
	} catch (const fs::filesystem_error&) {
		throw UpdateError("Fail to get size on " + path);
	}
}

std::pair<std::uintmax_t, std::uintmax_t> IOUtils::GetFsSize(const std::string& path) const {
	boost::system::error_code ignored;
	if (!fs::is_directory(fs::status(path, ignored))) {
		throw UpdateError("Invalid filesystem to testing space");
	}
	try {
		const fs::space_info space = fs::space(path);
		return {space.available, space.capacity};
	} catch (const fs::filesystem_error&) {
		throw UpdateError("Fail to get available space");
	}
}

Json::Value IOUtils::ReadJson(const std::string& path) const {
	Json::Value root;
	std::fstream file(path, std::ios::in);
	boost::system::error_code ignored;
	const fs::file_type type = fs::status(path, ignored).type();
	if (type == fs::file_not_found || type == fs::status_error) {
		throw UpdateError(messages::kFileNotExist + path, UpdateError::kFileNotExist);
	}
	if (!file.is_open()) {
		throw UpdateError("Fail to read: " + path);
	}
	if (!ParseJson(file, root)) {
		throw UpdateError(messages::kCannotDecode + path);
	}
	return root;
}

void IOUtils::WriteJson(const std::string& path, const Json::Value& value) const {
	try {
		const fs::path parent = fs::path(path).parent_path();
		if (fs::status(parent).type() == fs::file_not_found) {
			fs::create_directories(parent);
		}
	} catch (const fs::filesystem_error&) {
		throw UpdateError("Fail to create parent folder: " + path);
	}
	// In one go, because the file is no document from its opening to the last byte.
	std::ostringstream text;
	PrintJson(text, value);
	std::fstream file(path, std::ios::out);
	if (!file.is_open()) {
		throw UpdateError(messages::kCannotWrite + path);
	}
	file << text.str();
}

bool IOUtils::FileCreateOver(const std::string& path, int seconds) const {
	struct stat status {};
	if (stat(path.c_str(), &status) != 0) {
		const int error = errno;
		throw UpdateError((NoexceptFormat("Failed to get attribute of %s, errno=%d") % path % error).str());
	}
	const std::int64_t age = static_cast<std::int64_t>(time(nullptr)) - static_cast<std::int64_t>(status.st_mtime);
	return static_cast<std::int64_t>(seconds) < age;
}

void IOUtils::RmRf(const std::string& path) const {
	try {
		RemoveTree(path);
	} catch (const std::system_error&) {
		throw UpdateError("Fail to remove all: " + path);
	}
}

void IOUtils::CopyFile(const std::string& src, const std::string& dst) const {
	try {
		fs::create_directories(fs::path(dst).parent_path());
		fs::remove(dst);
		CopyByType(src, dst);
	} catch (const fs::filesystem_error& error) {
		throw UpdateError((NoexceptFormat("Fail to copy from %s to %s: %s") % src % dst % error.what()).str());
	}
}

void IOUtils::TarnMkdir(const std::string& path) const {
	constexpr auto kUnchanged = static_cast<uid_t>(-1);
	if (TARNFSMkdirP(path.c_str(), 0, 0, kUnchanged, kUnchanged, -1) == 0) {
		throw UpdateError(messages::kCannotCreateDirectory + path);
	}
}

void IOUtils::IterateDirectory(
    const std::string& dir, const std::function<void(const std::string&)>& callback, bool recursive) const {
	CheckIsDirectory(dir);
	const std::string prefix = dir.back() == '/' ? dir : dir + '/';
	const DirectoryEntries entries = ReadEntries(dir);
	entries.ForEach([&](const char* name, bool is_directory) {
		const std::string path = prefix + name;
		if (recursive && is_directory) {
			IterateDirectory(path, callback, true);
		}
		callback(path);
	});
	if (entries.Error() != 0) {
		throw UpdateError(std::strerror(entries.Error()));
	}
}

void SyncFileSystem(const std::string& path) {
	const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	if (fd.Get() < 0 || syncfs(fd.Get()) != 0) {
		throw UpdateError("Fail to sync " + path + ": " + std::strerror(errno));
	}
}

std::string FlatFileName(const std::string& name) {
	std::string flat = name;
	const auto is_flattened = [](char character) { return character == '/' || character == '.'; };
	std::replace_if(flat.begin(), flat.end(), is_flattened, '_');
	return flat;
}

boost::format NoexceptFormat(const std::string& format) {
	boost::format formatter;
	formatter.exceptions(boost::io::no_error_bits);
	formatter.parse(format);
	return formatter;
}

std::string TarnGetUserAgent(const std::string& category) {
	char buffer[1024] = {};
	if (TLIBHostinfoUserAgentGet(category.c_str(), buffer, sizeof(buffer)) < 0) {
		throw UpdateError("Fail to generate user agent string");
	}
	return {buffer, strnlen(buffer, sizeof(buffer))};
}

} // namespace tarn::dataupdate
