/** @file Changes of a file as a VCDIFF patch. */
#ifndef PUBLISHER_VCDIFF_ENCODER_H
#define PUBLISHER_VCDIFF_ENCODER_H

#include <cstdint>
#include <string>

namespace tarn::publisher {

/**
 * Writes a VCDIFF patch that turns one file into another, and tries it out. Its application header tells decoders the
 * sizes of both and the target's checksum: "TARNVCD1 <source size> <target size> <XXH3-128 in hexadecimal>".
 *
 * @param encoder  the xdelta3 program
 * @param scratch  a directory that no other call uses
 * @throws PublishError when the patch cannot be made or does not reproduce the target
 */
void EncodeVcdiff(const std::string& encoder, const std::string& source, const std::string& target,
    const std::string& patch, const std::string& scratch);

} // namespace tarn::publisher

#endif
