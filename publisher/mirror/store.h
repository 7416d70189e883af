/** @file A store of files on other machines, such as a bucket, to which a repository is carried. */
#ifndef PUBLISHER_MIRROR_STORE_H
#define PUBLISHER_MIRROR_STORE_H

#include "publisher/mirror/rclone.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarn::publisher {

/** A file of a repository or of a store. */
struct CarriedFile {
	std::uint64_t size = 0;
	std::optional<std::int64_t> time; // of its last change, in seconds since 1970; in a store: by the store's clock
};

/** Files by their names, relative to the repository and in a store alike. */
using CarriedFiles = std::map<std::string, CarriedFile>;

/** The second that a text such as "2026-11-22T10:20:54.05+01:00" names; no value for other texts. */
[[nodiscard]] std::optional<std::int64_t> ParseTime(const std::string& text);

/** What reading packages at a store has shown. */
struct Comparison {
	std::vector<std::string> same;
	std::vector<std::string> differing; // or missing at the store
	RcloneResult run;
};

/** Failures are PublishError. */
class Store {
public:
	/** @param remote  as rclone names it: "NAME:PATH" */
	Store(std::string remote, TransferProgress progress) : remote_(std::move(remote)), progress_(std::move(progress)) {}

	/** The files where packages and documents lie; names with a part that begins with a dot are left out. */
	[[nodiscard]] CarriedFiles List() const;
	[[nodiscard]] std::string Read(const std::string& name) const;
	/** Replaces a small file. Stores do that in one step, as a rule. */
	void Write(const std::string& name, const std::string& text) const;
	/** Puts packages of a repository into the store, whatever it has; those that are gone by now are left out. */
	[[nodiscard]] RcloneResult Carry(const std::string& repository, const std::vector<std::string>& names) const;
	/** Reads a repository's packages at the store. Those that neither of both has are left out. */
	[[nodiscard]] Comparison Compare(const std::string& repository, const std::vector<std::string>& names) const;
	void Remove(const std::vector<std::string>& names) const;

private:
	std::string PathOf(const std::string& name) const;

	std::string remote_;
	TransferProgress progress_;
};

} // namespace tarn::publisher

#endif
