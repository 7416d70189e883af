/** @file The document that tells devices which versions there are. */
#ifndef PUBLISHER_REPOSITORY_DOCUMENT_H
#define PUBLISHER_REPOSITORY_DOCUMENT_H

#include "publisher/common/publish_error.h"

#include <json/json.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::publisher {

/** A document cannot be understood. */
class DamagedDocument : public PublishError {
public:
	using PublishError::PublishError;
};

/** What the document says about one diff package. */
struct DiffFile {
	std::string download_link;
	int file_size = 0;
};

/** What the document says about one version of a database. */
struct Entry {
	int data_version = 0;
	int last_fetch_time = 0;
	std::string download_link;
	std::map<int, DiffFile> diff_files; // by the version that each leads to
};

/**
 * How many of the newest diff packages a document names: so many, or without a number as many as are together no larger
 * than the full package, and at most kMostKeptDiffs. Devices don't compare sizes; a longer chain would cost the device
 * that is furthest behind more than the full package.
 */
using KeptDiffs = std::optional<int>;
constexpr int kMostKeptDiffs = 100;

/** Takes the oldest diff packages away that are not to be kept. */
void KeepNewest(std::map<int, DiffFile>& files, const KeptDiffs& kept, std::uint64_t full_package_size);

/** Keeps what Put() does not change: other databases, flags of deprecation, members unknown here. */
class Document {
public:
	/** An empty document. */
	Document() : value_(Json::objectValue) {}
	/** Reads a file; throws DamagedDocument, or PublishError when the file cannot be read. */
	explicit Document(const std::string& path);
	/** The same for a text that was read from a file. */
	[[nodiscard]] static Document FromText(const std::string& path, const std::string& text);

	/** The version and the diff packages of a database; throws DamagedDocument when its version cannot be read. */
	[[nodiscard]] std::optional<Entry> Find(const std::string& id) const;
	/** The databases that the document names, in byte order. */
	std::vector<std::string> Ids() const { return value_["db_list"].getMemberNames(); }
	/** All that the document says about a database; null when it does not name the database. */
	const Json::Value& EntryJson(const std::string& id) const { return value_["db_list"][id]; }
	void Put(const std::string& id, const Entry& entry);
	/** Takes another document's entry with all its members; a flag of deprecation that is here stays. */
	void CopyEntry(const Document& other, const std::string& id);
	std::string Text() const;

	/** The whole text of a document's file; throws PublishError. */
	[[nodiscard]] static std::string ReadText(const std::string& path);

private:
	void Parse(const std::string& text);

	std::string path_;
	Json::Value value_;
};

/** Why devices read no document of so many bytes, without a period; empty when they read it. */
[[nodiscard]] std::string SizeProblem(std::uint64_t bytes);

/** The number that all of a text's digits make; no value when the text holds anything else. */
[[nodiscard]] std::optional<int> ParseVersion(std::string_view digits);

} // namespace tarn::publisher

#endif
