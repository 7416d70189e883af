/** @file The names of many files, each with a text such as its digest, in little memory. */
#ifndef DATAUPDATE_FILE_LIST_H
#define DATAUPDATE_FILE_LIST_H

#include "dataupdate/export.h"
#include "dataupdate/records.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::dataupdate {

/**
 * A list of names in byte order, each with a text. An entry takes the bytes of both and 16 more; a text of lower-case
 * hexadecimal digits, as a digest is, takes half of its bytes. A map of FileStatus takes three times as much.
 *
 * Names and texts of less than a gibibyte. Looking up needs the order: add names in it, or call Sort(). Several threads
 * may read a list that no thread changes.
 */
class TARNDBUD_EXPORT FileList {
public:
	FileList() = default;
	/** The digests of a record. */
	explicit FileList(const std::map<std::string, FileStatus>& statuses);
	/** Takes the entries; the other list is empty then. */
	FileList(FileList&& other) = default;
	/** Likewise. */
	FileList& operator=(FileList&& other) = default;
	FileList(const FileList&) = delete;
	FileList& operator=(const FileList&) = delete;
	~FileList() = default;

	/** Appends a file. Throws std::length_error when name or text is too long. */
	void Add(std::string_view name, std::string_view text = {});
	/** Puts the names into order; of entries with one name the first that was added stays. */
	void Sort();

	/** The number of entries. */
	[[nodiscard]] std::size_t Size() const { return entries_.size(); }
	/** Whether there is no entry. */
	[[nodiscard]] bool IsEmpty() const { return entries_.empty(); }
	/** The name at a place; valid as long as the list is. */
	[[nodiscard]] std::string_view Name(std::size_t at) const;
	/** The text at a place. */
	[[nodiscard]] std::string Text(std::size_t at) const;
	/** Whether the text at a place is not empty. */
	[[nodiscard]] bool HasText(std::size_t at) const { return entries_[at].text_size != 0; }
	/** The place of a name; none when the list lacks it. */
	[[nodiscard]] std::optional<std::size_t> Find(std::string_view name) const;
	/** The text of a name; none when the list lacks it. */
	[[nodiscard]] std::optional<std::string> TextOf(std::string_view name) const;

	/** Compares names and texts. */
	bool operator==(const FileList& other) const;
	/** The opposite. */
	bool operator!=(const FileList& other) const { return !(*this == other); }

	/**
	 * Frees what is kept of the entries before a place, which nobody may ask for any more; for who goes through all
	 * places in order.
	 */
	void FreeBefore(std::size_t at);

	/** Gives the list up for a record's map, without those that have no text, and frees it piece by piece. */
	[[nodiscard]] static std::map<std::string, FileStatus> TakeStatuses(FileList list);

private:
	struct Entry {
		const char* begin;
		std::uint32_t name_size;
		std::uint32_t text_size; // as it is kept; kPacked marks digits that are kept as bytes
	};

	[[nodiscard]] char* Room(std::size_t size);
	[[nodiscard]] std::string_view KeptText(const Entry& entry) const;

	std::vector<Entry> entries_;
	std::vector<std::unique_ptr<char[]>> blocks_;
	std::size_t freed_blocks_ = 0;
	char* block_end_ = nullptr; // of the last block
	std::size_t room_ = 0;      // left in it
	bool is_as_added_ = true;   // whether the entries are in the order of what they point to
};

} // namespace tarn::dataupdate

#endif
