/** @file What a publication is asked for. */
#ifndef PUBLISHER_REPOSITORY_PUBLISH_OPTIONS_H
#define PUBLISHER_REPOSITORY_PUBLISH_OPTIONS_H

#include "archive/packer.h"
#include "publisher/repository/document.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

constexpr std::int64_t kMinMemoryMib = 16;
constexpr std::int64_t kMaxMemoryMib = 1 << 20;
/** Enough for files of 650 MiB to be patched as a whole. */
constexpr std::int64_t kDefaultMemoryMib = 2048;

struct PublishOptions {
	std::string tree;
	std::string repository;
	std::string id;
	std::string key_file;
	std::string url; // what the repository is served as, without a "/" at its end
	std::optional<std::int64_t> data_version;
	std::string format_version = "1";
	std::string db_version = "1";
	int level = archive::kDefaultLevel;
	std::int64_t memory_mib = kDefaultMemoryMib; // for making patches and matching rows
	KeptDiffs keep_diffs;
	std::vector<std::string> old_keys; // public keys that signed earlier packages
	std::string notes;                 // what the packages say about the version
	bool if_changed = false;           // whether nothing is published when the newest version holds the tree
	bool even_withdrawn = false;       // whether the content of a withdrawn version is published again
	bool must_continue = false;        // whether a database that the repository does not know is refused
};

} // namespace tarn::publisher

#endif
