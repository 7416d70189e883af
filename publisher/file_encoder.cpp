#include "publisher/file_encoder.h"

#include "archive/tar_writer.h"
#include "base/text.h"
#include "publisher/input_file.h"
#include "publisher/publish_error.h"
#include "publisher/script_encoder.h"
#include "publisher/sqlite_content.h"
#include "publisher/vcdiff_encoder.h"

#include <exception>
#include <limits>

namespace tarn::publisher {

namespace {

/** Tries patch and script one after the other, and keeps the smallest. */
class Contest {
public:
	Contest(const EncodingTask& task, const Encoders& encoders, const std::string& scratch)
	    : task_(task), encoders_(encoders), scratch_(scratch) {}

	void TryPatch() {
		// A patch of nothing, or to nothing, is the file itself.
		if (task_.may_patch && encoders_.vcdiff && task_.change.before->size > 0 && task_.change.after->size > 0) {
			Try(PatchKind::kVcdiff, [this](const std::string& path) {
				EncodeVcdiff(
				    *encoders_.vcdiff, task_.change.before->source, task_.change.after->source, path, scratch_);
			});
		}
	}

	void TryScript() {
		const bool possible = task_.may_script && encoders_.script &&
		                      !FindScriptObstacle(task_.change.before->source, task_.change.after->source);
		if (possible) {
			Try(PatchKind::kScript, [this](const std::string& path) {
				const ScriptSubject subject = {task_.change.before->source, task_.change.after->source, task_.lineage};
				EncodeScript(*encoders_.script, subject, path, scratch_);
			});
		}
	}

	EncodedFile Decide() {
		if (result_.kind == PatchKind::kNone ||
		    CompressedSizeBelow(size_, task_.change.after->source, encoders_.level)) {
			result_.kind = PatchKind::kWhole;
			result_.input = task_.change.after->source;
		}
		return result_;
	}

private:
	template<typename Encode>
	void Try(PatchKind kind, const Encode& encode) {
		const std::string path = scratch_ + "/result" + PatchKindExtension(kind);
		try {
			encode(path);
		} catch (const std::exception& error) {
			result_.warning = "\"" + Printable(task_.change.name) + "\" is carried in another way than " +
			                  PatchKindName(kind) + ": " + error.what();
			return;
		}
		if (const auto size = CompressedSizeBelow(size_, path, encoders_.level)) {
			size_ = *size;
			result_.kind = kind;
			result_.input = path;
		}
	}

	const EncodingTask& task_;
	const Encoders& encoders_;
	const std::string& scratch_;
	std::uint64_t size_ = std::numeric_limits<std::uint64_t>::max();
	EncodedFile result_;
};

} // namespace

std::optional<std::uint64_t> CompressedSizeBelow(std::uint64_t limit, const std::string& path, int level) {
	InputFile file(path);
	std::uint64_t compressed = 0;
	archive::ZstdWriter writer(level, [&compressed](std::string_view bytes) { compressed += bytes.size(); });
	writer.ExpectSize(file.Size());
	for (std::string_view part = file.Next(); !part.empty() && compressed < limit; part = file.Next()) {
		writer.Write(part);
	}
	if (compressed < limit) {
		writer.Finish();
	}
	return compressed < limit ? std::optional(compressed) : std::nullopt;
}

EncodedFile EncodeFile(const EncodingTask& task, const Encoders& encoders, const std::string& scratch) {
	if (!task.change.after) {
		return {};
	}
	Contest contest(task, encoders, scratch);
	if (task.change.before && task.change.before->executable == task.change.after->executable) {
		contest.TryPatch();
		contest.TryScript();
	}
	return contest.Decide();
}

} // namespace tarn::publisher
