/** @file What a repository offers at one moment, to be carried to a store by one process at a time. */
#ifndef PUBLISHER_MIRROR_MIRROR_SNAPSHOT_H
#define PUBLISHER_MIRROR_MIRROR_SNAPSHOT_H

#include "base/unique_fd.h"
#include "publisher/common/publish_error.h"
#include "publisher/mirror/store.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tarn::publisher {

/** Devices could not use the repository as it is. */
class BrokenRepository : public PublishError {
public:
	using PublishError::PublishError;
};

/** What a document says about a package. */
struct NamedPackage {
	std::string document;
	std::optional<std::uint64_t> size; // no document says that of a full package
};

struct Snapshot {
	std::map<std::string, std::string> documents;   // texts by their names in the repository
	std::multimap<std::string, NamedPackage> named; // packages by their names, for each document that names them
	std::map<std::string, int> newest;              // the highest version that any document names, by database
	CarriedFiles packages;                          // that are there, named or not
};

/** The names of the documents in a repository, relative to it. */
constexpr const char* kDocuments = "database_info";

/** Whether a relative name is one that publishers give to packages. */
[[nodiscard]] bool IsPackageName(const std::string& name);

/** Whether a relative name is that of a document or package while nginx writes it: nginx leaves it when it is killed.
 */
[[nodiscard]] bool IsServersDraft(const std::string& name);

/**
 * Waits until no other process carries this repository; publishers go on.
 *
 * @param waiting  is called before it waits
 * @return what keeps others out as long as it is open
 * @throws BrokenRepository when there is no directory of documents; PublishError
 */
[[nodiscard]] UniqueFd LockMirrors(const std::string& repository, const std::function<void()>& waiting);

/**
 * Reads documents first, and lists packages then. Whatever a document names was there before the document, so only a
 * publisher who has replaced the document since can have removed the package. Waits for no publisher and writes
 * nothing.
 *
 * @throws BrokenRepository when there is no document, or one is damaged; PublishError
 */
[[nodiscard]] Snapshot TakeSnapshot(const std::string& repository);

/** Whether the documents still are what they were. Throws PublishError. */
[[nodiscard]] bool IsCurrent(const Snapshot& snapshot, const std::string& repository);

/** A package that is not there as a document names it, in words; empty when there is none. */
[[nodiscard]] std::string MissingPackage(const Snapshot& snapshot, const CarriedFiles& present);

} // namespace tarn::publisher

#endif
