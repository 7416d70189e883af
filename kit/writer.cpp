#include "kit/writer.h"

#include "base/document_limit.h"
#include "base/error.h"
#include "base/file_io.h"
#include "base/sha2.h"
#include "kit/layout.h"

#include <sys/types.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarn::kit {

namespace {

constexpr std::uint64_t kPieceSize = std::uint64_t{256} << 10U;

/** Writes members one behind the other. */
class Tar {
public:
	explicit Tar(int fd) : fd_(fd) {}

	void Begin(const std::string& name, std::uint64_t size) { Add(MakeHeader(name, size)); }
	void Add(std::string_view bytes) {
		if (!WriteAll(fd_, bytes.data(), bytes.size())) {
			ThrowErrno("cannot be written");
		}
	}
	void End(std::uint64_t size) { Add(std::string(static_cast<std::size_t>(Padded(size) - size), '\0')); }
	void AddWhole(const std::string& name, const std::string& content) {
		Begin(name, content.size());
		Add(content);
		End(content.size());
	}

private:
	int fd_;
};

std::string DigestOf(const std::string& text) {
	Sha256 digest;
	digest.Add(text);
	return digest.FinishHex();
}

/** Copies a package and returns its digest. */
std::string Copy(const Package& package, Tar& tar, const Progress& progress) {
	Sha256 digest;
	std::string piece;
	for (std::uint64_t done = 0; done < package.part.size;) {
		piece.resize(static_cast<std::size_t>(std::min(kPieceSize, package.part.size - done)));
		if (!ReadFullyAt(package.file.Get(), piece.data(), piece.size(), done)) {
			throw Error("cannot be made: " + NameOf(package.part) + " became shorter while it was read");
		}
		digest.Add(piece);
		tar.Add(piece);
		done += piece.size();
		progress(piece.size());
	}
	return digest.FinishHex();
}

std::vector<Part> PartsOf(const std::string& document, const std::vector<Package>& packages) {
	std::vector<Part> parts = {{Kind::kDocument, "", 0, document.size(), DigestOf(document)}};
	std::transform(packages.begin(), packages.end(), std::back_inserter(parts), [](const Package& package) {
		Part part = package.part;
		part.sha256.assign(Sha256::kDigits, '0');
		return part;
	});
	return parts;
}

/** Puts the table with the digests in the place of the one without. */
void Rewrite(int fd, const std::string& table) {
	if (lseek(fd, kBlockSize, SEEK_SET) < 0 || !WriteAll(fd, table.data(), table.size())) {
		ThrowErrno("cannot be written");
	}
}

static_assert(kMaxDocumentSize == kLargestDocument, "a kit carries what a server may offer");

} // namespace

// The packages' files are closed in the end. NOLINTNEXTLINE(performance-unnecessary-value-param)
void Write(int fd, const std::string& document, std::vector<Package> packages, const Progress& progress) {
	std::vector<Part> parts = PartsOf(document, packages);
	const std::string table = TableText(parts);
	Require(document.size() <= kMaxDocumentSize && table.size() <= kMaxTableSize && parts.size() <= kMaxParts,
	    "cannot be made: its document or its table is too large");
	Tar tar(fd);
	tar.AddWhole(kTableName, table);
	tar.AddWhole(kDocumentName, document);
	for (std::size_t at = 0; at < packages.size(); ++at) {
		Part& part = parts[at + 1];
		tar.Begin(NameOf(part), part.size);
		part.sha256 = Copy(packages[at], tar, progress);
		tar.End(part.size);
	}
	tar.Add(std::string(kEndSize, '\0'));
	Rewrite(fd, TableText(parts));
}

} // namespace tarn::kit
