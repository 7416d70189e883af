/** @file Reading a kit. */
#ifndef KIT_READER_H
#define KIT_READER_H

#include "base/error.h"
#include "base/unique_fd.h"
#include "kit/table.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::kit {

/** What a kit fails by that is not as it was written: another copy of it may be whole. */
class DamagedKit : public Error {
public:
	using Error::Error;
};

/**
 * An open kit. A kit is made by whoever has it in hands: its table only makes errors clear, and what is installed from
 * it is believed for the packages' signatures alone. All failures are Error, whose text follows the file's name; none
 * leaves the object unusable.
 */
class Reader {
public:
	using Sink = std::function<void(std::string_view bytes)>;

	/** Opens a file and looks at all of it but the contents: the table, every header, the size. */
	explicit Reader(const std::string& path);
	/** The same for a file that is open. */
	explicit Reader(UniqueFd fd);

	/** The document and then the packages, in the order of the file. */
	const std::vector<Part>& Parts() const { return parts_; }
	/** Null when there is no such package. */
	[[nodiscard]] const Part* Find(Kind kind, const std::string& id, int data_version) const;

	/** The document, which is as it was written. */
	[[nodiscard]] std::string ReadDocument() const;
	/**
	 * Hands out a part's bytes, one piece after the other, and throws in the end unless they are what the table says:
	 * what was handed out is then good for nothing. What the sink throws passes through.
	 */
	void Read(const Part& part, const Sink& sink) const;

private:
	void ReadTable();
	void CheckHeaders() const;
	std::string ReadAt(std::uint64_t offset, std::uint64_t size) const;

	UniqueFd fd_;
	std::string table_;
	std::vector<Part> parts_;
	std::vector<std::uint64_t> offsets_; // of the contents, the table's as the first
};

} // namespace tarn::kit

#endif
