/** @file Encoding all changed files of a diff package, within a limit of memory. */
#ifndef PUBLISHER_DIFF_ENCODE_FILES_H
#define PUBLISHER_DIFF_ENCODE_FILES_H

#include "publisher/common/files.h"
#include "publisher/diff/file_encoder.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace tarn::publisher {

/** Bytes of memory that a task may take, never more than the limit that all tasks share. */
[[nodiscard]] std::uint64_t MemoryOf(const EncodingTask& task, std::uint64_t limit);

/**
 * Encodes files with one thread for each processor, large files first. Tasks that together would take more than the
 * encoders' memory wait for each other; the result does not depend on that.
 *
 * @param step  is called by one thread at a time with the number of tasks done
 */
[[nodiscard]] std::vector<EncodedFile> EncodeFiles(const std::vector<EncodingTask>& tasks, const Encoders& encoders,
    const WorkDirectory& work, const std::function<void(std::size_t done)>& step);

} // namespace tarn::publisher

#endif
