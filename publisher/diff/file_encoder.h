/** @file How changed files are written in a diff package: each as a patch, a script, or whole. */
#ifndef PUBLISHER_DIFF_FILE_ENCODER_H
#define PUBLISHER_DIFF_FILE_ENCODER_H

#include "publisher/common/files.h"
#include "publisher/diff/kind_plan.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/tree.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** How much of source and target the encoder looks at together; devices keep no window in memory. */
struct VcdiffWindows {
	std::uint64_t source = 0;
	std::uint64_t target = 0;

	/**
	 * The windows for two files, as large as the files or the encoder's limits, or smaller where memory does not
	 * suffice. A file whose source window is smaller than the source finds what has moved by no more than that.
	 */
	static VcdiffWindows Of(std::uint64_t source_size, std::uint64_t target_size, std::uint64_t memory);
	/** The bytes that the encoder takes beside some for itself, as measured. */
	std::uint64_t Memory(std::uint64_t source_size) const;
};

/**
 * Writes a VCDIFF patch that turns one file into another, and tries it out. Its application header tells decoders the
 * sizes of both and the target's checksum: "TARNVCD1 <source size> <target size> <XXH3-128 in hexadecimal>".
 *
 * @param encoder  the xdelta3 program
 * @param memory   bytes that the encoder may take
 * @param scratch  a directory that no other call uses
 * @throws PublishError when the patch cannot be made or does not reproduce the target
 */
void EncodeVcdiff(const std::string& encoder, const std::string& source, const std::string& target,
    const std::string& patch, const std::string& scratch, std::uint64_t memory);

/** The program that makes patches, where it is installed, and how packages are compressed. */
struct Encoders {
	std::optional<std::string> vcdiff; // xdelta3
	int level = 0;
	std::uint64_t memory = 0; // bytes that making a patch or matching rows may take
};

/** How one file may be brought to the next version. */
struct EncodingTask {
	TreeChange change;
	bool may_patch = false;
	bool may_script = false;
	std::string lineage; // as in ScriptSubject
	bool is_database = false;
	ChainCosts past; // of a database
};

/** What was chosen for one file. */
struct EncodedFile {
	PatchKind kind = PatchKind::kNone;
	std::string input; // path of the file that goes into the package
	std::string warning;
	StepCosts costs;
	KindPlan plan; // of a database that was there before
};

/**
 * Chooses what is smallest when compressed: a patch, a script or the file itself; for a database, what is expected to
 * be smallest along the chain. Chooses only what it has tried out. Threads may do several tasks at once.
 *
 * @param scratch  an existing directory that no other task uses; the result lies there, or in the tree
 */
[[nodiscard]] EncodedFile EncodeFile(const EncodingTask& task, const Encoders& encoders, const std::string& scratch);

/**
 * The size of a file that is compressed as packages are. No value as soon as the size is not below a limit: the
 * compression of a large file takes long, and ends when its patch is known to be smaller. Throws PublishError, and
 * Error of archive/.
 */
[[nodiscard]] std::optional<std::uint64_t> CompressedSizeBelow(std::uint64_t limit, const std::string& path, int level);

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
