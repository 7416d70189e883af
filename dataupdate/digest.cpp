// The digest functions are deprecated in favour of an interface that fetches them by name at run time.
#define OPENSSL_API_COMPAT 0x10101000L

#include "base/text.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <openssl/sha.h>

#include <array>
#include <vector>

namespace tarn::dataupdate {

namespace {

constexpr std::streamsize kBlockBytes = 64L * 1024;

} // namespace

std::string GetSha384(std::istream& in) {
	SHA512_CTX context;
	SHA384_Init(&context);
	std::vector<char> block(kBlockBytes);
	while (in.good()) {
		const std::streamsize count = in.readsome(block.data(), kBlockBytes);
		if (in.fail()) {
			throw UpdateError("Fail during reading for SHA digest");
		}
		if (count == 0) {
			break;
		}
		SHA384_Update(&context, block.data(), static_cast<size_t>(count));
	}
	std::array<unsigned char, SHA384_DIGEST_LENGTH> digest{};
	SHA384_Final(digest.data(), &context);
	return Hex(digest.data(), digest.size());
}

} // namespace tarn::dataupdate
