/** @file Where the decoder reads and writes: files in the program, memory in tests; and the hash of what it makes. */
#ifndef DECODER_BYTES_H
#define DECODER_BYTES_H

#include "base/handle.h"

#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::decoder {

/** Why a patch could not be applied: one line that names the file and, where it is the patch's fault, the byte. */
class DecodeError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

using Byte = std::uint8_t;

/** Bytes that can be read at any place. */
class ReadableBytes {
public:
	ReadableBytes() = default;
	ReadableBytes(const ReadableBytes&) = delete;
	ReadableBytes& operator=(const ReadableBytes&) = delete;
	virtual ~ReadableBytes() = default;

	/** What messages call them. */
	virtual const std::string& Name() const = 0;
	virtual std::uint64_t Size() const = 0;
	/** The caller keeps the range within Size(). Throws DecodeError when it cannot be read. */
	virtual void ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const = 0;
};

/** Bytes that grow at their end, and whose earlier part never changes. */
class GrowingBytes : public ReadableBytes {
public:
	/** Throws DecodeError when they cannot be written. */
	virtual void Append(const Byte* from, std::size_t length) = 0;
};

class MemoryBytes : public GrowingBytes {
public:
	explicit MemoryBytes(std::string name, std::vector<Byte> content = {});

	const std::string& Name() const override { return name_; }
	std::uint64_t Size() const override { return content_.size(); }
	void ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const override;
	void Append(const Byte* from, std::size_t length) override;

	const std::vector<Byte>& Content() const { return content_; }

private:
	std::string name_;
	std::vector<Byte> content_;
};

/** XXH3-128 over bytes that come piece by piece. */
class ContentHash {
public:
	ContentHash();

	void Update(const Byte* from, std::size_t length);
	/** 32 lower-case hexadecimal digits, most significant first. */
	std::string Hex() const;

private:
	Handle<XXH3_state_t, XXH3_freeState> state_;
};

} // namespace tarn::decoder

#endif
