/** @file What a kit holds, and the table that says so in its first member. */
#ifndef KIT_TABLE_H
#define KIT_TABLE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn::kit {

constexpr char kTableName[] = "tarndbud-kit.json";
constexpr char kDocumentName[] = "database_info.json";
constexpr std::uint64_t kMaxTableSize = std::uint64_t{1} << 20U;
/** Devices take no larger document from a server either. */
constexpr std::uint64_t kMaxDocumentSize = std::uint64_t{2} << 20U;
/** Above what a signed archive can be. */
constexpr std::uint64_t kMaxPartSize = std::uint64_t{128} << 30U;
constexpr std::size_t kMaxParts = 4096;

enum class Kind { kDocument, kFull, kDiff };

/** One member behind the table. */
struct Part {
	Kind kind = Kind::kDocument;
	std::string id;       ///< The package's database; empty for the document.
	int data_version = 0; ///< The version that the package leads to; 0 for the document.
	std::uint64_t size = 0;
	std::string sha256; ///< 64 lower-case hexadecimal digits.
};

/** The name of a part's member, which follows from what the part is: "zones_v4.tarn", "zones_d5.tarn". */
[[nodiscard]] std::string NameOf(const Part& part);

/** The table's text. Its size does not depend on the digests, as long as each has its digits. */
[[nodiscard]] std::string TableText(const std::vector<Part>& parts);

/**
 * Reads a table. Whatever it names is then plain: ids are words that publishers allow, no part is there twice, and the
 * document is the first.
 *
 * @throws Error saying what is wrong
 */
[[nodiscard]] std::vector<Part> ParseTable(const std::string& text);

} // namespace tarn::kit

#endif
