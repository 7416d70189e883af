#include "dataupdate/file_list.h"

#include "base/text.h"

#include <algorithm>
#include <stdexcept>

namespace tarn::dataupdate {

namespace {

/** Large enough to be a mapping of its own, which goes back to the system as soon as it is freed. */
constexpr std::size_t kBlockBytes = std::size_t{256} << 10U;
constexpr std::uint32_t kPacked = std::uint32_t{1} << 31U;
constexpr std::size_t kLongest = std::size_t{1} << 30U;

// Boost's digits take four times as long, which records of many files feel.
int ValueOf(char digit) {
	if (digit >= '0' && digit <= '9') {
		return digit - '0';
	}
	return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
}

bool IsHex(std::string_view text) {
	return text.size() % 2 == 0 &&
	       std::all_of(text.begin(), text.end(), [](char digit) { return ValueOf(digit) >= 0; });
}

void Pack(std::string_view digits, char* bytes) {
	constexpr int kBase = 16;
	for (std::size_t i = 0; i < digits.size(); i += 2) {
		*bytes++ = static_cast<char>(ValueOf(digits[i]) * kBase + ValueOf(digits[i + 1]));
	}
}

} // namespace

FileList::FileList(const std::map<std::string, FileStatus>& statuses) {
	for (const auto& [name, status] : statuses) {
		Add(name, status.sha384_digest);
	}
}

char* FileList::Room(std::size_t size) {
	if (blocks_.empty() || size > room_) { // A list that was moved from has room without a block.
		const std::size_t block = std::max(size, kBlockBytes);
		// Without value initialization: pages that are not used take no memory.
		blocks_.emplace_back(new char[block]); // NOLINT(cppcoreguidelines-owning-memory): the block owns it
		room_ = block;
		block_end_ = blocks_.back().get() + block;
	}
	char* const room = block_end_ - room_;
	room_ -= size;
	return room;
}

void FileList::Add(std::string_view name, std::string_view text) {
	if (name.size() >= kLongest || text.size() >= kLongest) {
		throw std::length_error("FileList");
	}
	const bool is_packed = !text.empty() && IsHex(text);
	const std::size_t text_size = is_packed ? text.size() / 2 : text.size();
	char* const begin = Room(name.size() + text_size);
	std::copy(name.begin(), name.end(), begin);
	if (is_packed) {
		Pack(text, begin + name.size());
	} else {
		std::copy(text.begin(), text.end(), begin + name.size());
	}
	entries_.push_back({begin, static_cast<std::uint32_t>(name.size()),
	    static_cast<std::uint32_t>(text_size) | (is_packed ? kPacked : 0)});
}

void FileList::Sort() {
	const auto name_of = [](const Entry& entry) { return std::string_view(entry.begin, entry.name_size); };
	const auto is_before = [&](const Entry& left, const Entry& right) { return name_of(left) < name_of(right); };
	const auto is_same = [&](const Entry& left, const Entry& right) { return name_of(left) == name_of(right); };
	if (!std::is_sorted(entries_.begin(), entries_.end(), is_before)) {
		std::stable_sort(entries_.begin(), entries_.end(), is_before);
		is_as_added_ = false;
	}
	entries_.erase(std::unique(entries_.begin(), entries_.end(), is_same), entries_.end());
}

std::string_view FileList::Name(std::size_t at) const {
	return {entries_[at].begin, entries_[at].name_size};
}

std::string_view FileList::KeptText(const Entry& entry) const {
	return {entry.begin + entry.name_size, entry.text_size & ~kPacked};
}

std::string FileList::Text(std::size_t at) const {
	const std::string_view kept = KeptText(entries_[at]);
	if ((entries_[at].text_size & kPacked) == 0) {
		return std::string(kept);
	}
	return Hex(reinterpret_cast<const unsigned char*>(kept.data()), kept.size());
}

std::optional<std::size_t> FileList::Find(std::string_view name) const {
	const auto is_before = [](const Entry& entry, std::string_view wanted) {
		return std::string_view(entry.begin, entry.name_size) < wanted;
	};
	const auto found = std::lower_bound(entries_.begin(), entries_.end(), name, is_before);
	const auto at = static_cast<std::size_t>(found - entries_.begin());
	return found != entries_.end() && Name(at) == name ? std::optional(at) : std::nullopt;
}

std::optional<std::string> FileList::TextOf(std::string_view name) const {
	const std::optional<std::size_t> at = Find(name);
	return at ? std::optional(Text(*at)) : std::nullopt;
}

bool FileList::operator==(const FileList& other) const {
	const auto is_same = [this](const Entry& left, const Entry& right) {
		return std::string_view(left.begin, left.name_size) == std::string_view(right.begin, right.name_size) &&
		       left.text_size == right.text_size && KeptText(left) == KeptText(right);
	};
	return std::equal(entries_.begin(), entries_.end(), other.entries_.begin(), other.entries_.end(), is_same);
}

void FileList::FreeBefore(std::size_t at) {
	// Entries fill block after block: the first that begins a block has all others behind it.
	if (is_as_added_ && freed_blocks_ + 1 < blocks_.size() && entries_[at].begin == blocks_[freed_blocks_ + 1].get()) {
		blocks_[freed_blocks_++].reset();
	}
}

std::map<std::string, FileStatus> FileList::TakeStatuses(FileList list) {
	std::map<std::string, FileStatus> statuses;
	for (std::size_t at = 0; at < list.Size(); ++at) {
		list.FreeBefore(at);
		if (list.HasText(at)) {
			statuses.emplace_hint(statuses.end(), list.Name(at), FileStatus(list.Text(at)));
		}
	}
	return statuses;
}

} // namespace tarn::dataupdate
