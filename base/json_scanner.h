/** @file JSON read piece by piece, for documents too long to be held as a tree of values. */
#ifndef BASE_JSON_SCANNER_H
#define BASE_JSON_SCANNER_H

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

/** A document cannot be read, or is none, or another one than the caller expects. */
class UnexpectedJson : public std::exception {};

/**
 * Reads a document from the beginning of an open file, in the order in which it is written. Strict: no comments, no
 * numbers but integers, nothing behind the document. Everything else is UnexpectedJson, upon which a caller turns to a
 * reader that takes all of JSON, and that has words for what is wrong.
 */
class JsonScanner {
public:
	/** @param fd  outlives the scanner; its position does not matter */
	explicit JsonScanner(int fd);

	/** A text; valid until the next call. */
	const std::string& Text();
	/** An integer of at most 18 digits. */
	std::int64_t Integer();
	bool Boolean();
	/**
	 * An object: calls back with the name of each member, which the callback keeps if it needs it, and has to read the
	 * value.
	 */
	void Members(const std::function<void(const std::string& name)>& member);
	/** Requires that nothing follows. */
	void End();

	/** Throws UnexpectedJson unless what was read is as the caller expects it. */
	static void Expect(bool is_as_expected);

private:
	static constexpr int kEnd = -1;

	/** The next byte, which stays the next; kEnd behind the last. */
	int Peek();
	int Take();
	void SkipBlanks();
	/** Takes a byte behind blanks if it is the next. */
	bool Skip(char expected);
	void Require(char expected);
	void Fill();
	void Escape();
	unsigned CodeUnit();

	int fd_;
	std::vector<char> buffer_;
	std::size_t at_ = 0;
	std::size_t filled_ = 0;
	std::uint64_t offset_ = 0;
	std::string text_;
};

} // namespace tarn

#endif
