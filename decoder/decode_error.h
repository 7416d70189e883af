/** @file Why a patch cannot be applied. */
#ifndef DECODER_DECODE_ERROR_H
#define DECODER_DECODE_ERROR_H

#include <stdexcept>

namespace tarn::decoder {

/** Why a patch could not be applied: one line that names the file and, where it is the patch's fault, the byte. */
class DecodeError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

} // namespace tarn::decoder

#endif
