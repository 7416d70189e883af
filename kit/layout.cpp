#include "kit/layout.h"

#include "base/error.h"

#include <algorithm>
#include <numeric>

namespace tarn::kit {

namespace {

/** A field of a header: where it begins, and its bytes. */
struct Field {
	std::size_t at;
	std::size_t size;
};

constexpr Field kName = {0, 100};
constexpr Field kMode = {100, 8};
constexpr Field kOwner = {108, 8};
constexpr Field kGroup = {116, 8};
constexpr Field kSize = {124, 12};
constexpr Field kTime = {136, 12};
constexpr Field kChecksum = {148, 8};
constexpr Field kType = {156, 1};
constexpr Field kMagic = {257, 8};

constexpr unsigned kOctalBits = 3;
constexpr unsigned kByteBits = 8;
constexpr unsigned kAllMayRead = 0644;
constexpr char kBinary = '\x80'; // Begins a size that is too large for the digits.

void Put(std::string& header, const Field& field, std::string_view text) {
	header.replace(field.at, text.size(), text);
}

/** Octal digits, with zeros before them and a zero byte behind. */
std::string Octal(std::uint64_t number, std::size_t field_size) {
	std::string digits(field_size - 1, '0');
	for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit, number >>= kOctalBits) {
		*digit = static_cast<char>('0' + (number & 7U));
	}
	return digits;
}

/** As GNU tar and the tar programs of today write sizes of 8 GiB and more. */
std::string Binary(std::uint64_t number, std::size_t field_size) {
	std::string bytes(field_size, '\0');
	for (auto byte = bytes.rbegin(); number > 0; ++byte, number >>= kByteBits) {
		*byte = static_cast<char>(static_cast<unsigned char>(number & 0xFFU));
	}
	bytes.front() = kBinary;
	return bytes;
}

std::uint64_t Sum(std::string_view header) {
	return std::accumulate(header.begin(), header.end(), std::uint64_t{0},
	    [](std::uint64_t sum, char byte) { return sum + static_cast<unsigned char>(byte); });
}

} // namespace

std::string MakeHeader(const std::string& name, std::uint64_t size) {
	Require(!name.empty() && name.size() < kName.size, "has a member whose name is too long");
	std::string header(kBlockSize, '\0');
	Put(header, kName, name);
	Put(header, kMode, Octal(kAllMayRead, kMode.size));
	Put(header, kOwner, Octal(0, kOwner.size));
	Put(header, kGroup, Octal(0, kGroup.size));
	const bool has_digits = size >> ((kSize.size - 1) * kOctalBits) == 0;
	Put(header, kSize, has_digits ? Octal(size, kSize.size) : Binary(size, kSize.size));
	Put(header, kTime, Octal(0, kTime.size));
	Put(header, kChecksum, std::string(kChecksum.size, ' '));
	Put(header, kType, "0");
	Put(header, kMagic, std::string_view("ustar\00000", kMagic.size));
	constexpr std::size_t kChecksumDigits = 6;
	Put(header, kChecksum, Octal(Sum(header), kChecksumDigits + 1) + '\0');
	return header;
}

std::uint64_t SizeInHeader(std::string_view header) {
	const std::string_view digits = header.substr(kSize.at, kSize.size - 1);
	Require(std::all_of(digits.begin(), digits.end(), [](char digit) { return digit >= '0' && digit <= '7'; }),
	    "is no kit");
	return std::accumulate(digits.begin(), digits.end(), std::uint64_t{0}, [](std::uint64_t number, char digit) {
		return (number << kOctalBits) + static_cast<std::uint64_t>(digit - '0');
	});
}

std::vector<std::uint64_t> OffsetsOf(const std::vector<std::uint64_t>& sizes) {
	std::vector<std::uint64_t> offsets;
	std::uint64_t at = 0;
	for (const std::uint64_t size : sizes) {
		offsets.push_back(at + kBlockSize);
		at += kBlockSize + Padded(size);
	}
	offsets.push_back(at + kEndSize);
	return offsets;
}

} // namespace tarn::kit
