#ifndef PUBLISHER_FILE_ENCODER_H
#define PUBLISHER_FILE_ENCODER_H

#include "publisher/diff_package.h"
#include "publisher/tree_changes.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::publisher {

/** The programs that make patches, where they are installed, and how packages are compressed. */
struct Encoders {
	std::optional<std::string> vcdiff; // xdelta3
	std::optional<std::string> script; // sqldiff
	int level = 0;
};

/** What may be done to bring one file from a version to the next. */
struct EncodingTask {
	TreeChange change;
	bool may_patch = false;
	bool may_script = false;
	std::string lineage; // as in ScriptSubject
};

/** What was chosen for one file. */
struct EncodedFile {
	PatchKind kind = PatchKind::kNone;
	std::string input; // path of the file that goes into the package
	std::string warning;
};

/**
 * Finds the smallest way to carry what becomes of a file, as it is when compressed: a patch, a script or the file
 * itself. Only what has been tried out is chosen. Threads may do several tasks at once.
 *
 * @param scratch  an existing directory of this task's own; the result lies there, or in the tree
 */
EncodedFile EncodeFile(const EncodingTask& task, const Encoders& encoders, const std::string& scratch);

} // namespace tarn::publisher

#endif
