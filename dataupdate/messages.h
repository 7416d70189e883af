/**
 * @file
 * The messages of UpdateError that programs tell apart: what() is the constant, or begins with it where the constant
 * ends in a blank or a quotation mark.
 *
 * The library throws these constants and hosts compare with them, so that both follow a change of the text. A message
 * may hold any text of a server behind its beginning: compare the beginning, and never search within a message.
 */
#ifndef DATAUPDATE_MESSAGES_H
#define DATAUPDATE_MESSAGES_H

/** The messages of UpdateError that programs tell apart. */
namespace tarn::dataupdate::messages {

constexpr char kInterrupted[] = "Interrupted";     ///< An operation ended early, as a host asked for.
constexpr char kOnProject[] = "Fail on project '"; ///< Then the id, kOnProjectEnd and the message of one database.
constexpr char kOnProjectEnd[] = "': ";            ///< What separates the id from the message.
constexpr char kCannotLock[] =
    "Fail to lock "; ///< Then the path: the lock was held all the time, or the wait was ended.
constexpr char kCannotOpenLock[] = "Fail open lock file ";       ///< Then the path.
constexpr char kCannotCreateDirectory[] = "Fail to create dir "; ///< Then the path or the reason.

constexpr char kUnknownProject[] = "Project ";       ///< Then the id and " not supported".
constexpr char kMissingSetting[] = "section-key: '"; ///< Then the section, "'-'", the key and "' not found".
constexpr char kWrongType[] = "Bad type conversion"; ///< A default setting has the wrong type.
constexpr char kInvalidValue[] = "Invalid value '";  ///< Then the value: "install_dest" must not have it.
constexpr char kCannotSet[] = "Fail to set config "; ///< Then the section, ":" and the key.

constexpr char kFileNotExist[] = "File not exist: "; ///< Then the path; has the code UpdateError::kFileNotExist.
constexpr char kCannotDecode[] = "Fail to decode: "; ///< Then the path of a file that is no JSON document.
constexpr char kCannotWrite[] = "Fail to write: ";   ///< Then the path.
constexpr char kInvalidRecord[] = "Invalid json object for "; ///< Then the record of records.h that JSON does not hold.

constexpr char kCannotDownload[] = "Fail to wget url: ";    ///< Then the link.
constexpr char kCannotOpenPackage[] = "tarnarchive_open ";  ///< Then the path: the signature is missing or not trusted.
constexpr char kCannotExtract[] = "tarnarchive_extract ";   ///< Then the path of the package.
constexpr char kLowSpace[] = "Disk space is too low";       ///< Less than 5 % would stay free.
constexpr char kDiffUpdate[] = "Fail to diff update: ";     ///< Then the reason; files may have been replaced.
constexpr char kFullUpdate[] = "Fail to full update: ";     ///< Then the reason; files may have been replaced.
constexpr char kForceInstall[] = "Fail to force install: "; ///< Then the reason; files may have been replaced.
constexpr char kRefused[] = "Refused by hook '";      ///< Then the hook, "': " and its sentence; nothing was replaced.
constexpr char kNoVerdict[] = "No verdict by hook '"; ///< Then the hook, "': " and why; nothing was replaced.

constexpr char kNoSuitableVolume[] = "Cannot find suitable volume.";  ///< No volume may hold the databases.
constexpr char kCannotListVolumes[] = "Failed to enum all volumes: "; ///< Then the platform's error number.
/** The message of a std::runtime_error: the databases' reserves are too large. */
constexpr char kReserveOverflow[] = "Overflow detection, this may be caused by invalid configurations.";

} // namespace tarn::dataupdate::messages

#endif
