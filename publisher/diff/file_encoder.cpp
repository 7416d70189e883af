#include "publisher/diff/file_encoder.h"

#include "archive/compressor.h"
#include "base/mutex.h"
#include "base/parallel.h"
#include "base/text.h"
#include "decoder/bytes.h"
#include "decoder/decode.h"
#include "publisher/common/program.h"
#include "publisher/common/publish_error.h"
#include "publisher/diff/script_encoder.h"
#include "publisher/sqlite/sqlite_content.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <filesystem>
#include <limits>
#include <numeric>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

std::string HashOf(InputFile& file) {
	decoder::ContentHash hash;
	for (std::string_view part = file.Next(); !part.empty(); part = file.Next()) {
		hash.Update(reinterpret_cast<const decoder::Byte*>(part.data()), part.size());
	}
	return hash.Hex();
}

std::uint64_t NextPowerOfTwo(std::uint64_t value, std::uint64_t least, std::uint64_t most) {
	std::uint64_t power = least;
	while (power < value && power < most) {
		power *= 2;
	}
	return power;
}

std::vector<std::string> Arguments(
    const std::string& source, const std::string& target, const std::string& patch, std::uint64_t memory) {
	const std::uint64_t source_size = fs::file_size(source);
	InputFile target_file(target);
	const std::uint64_t target_size = target_file.Size();
	const VcdiffWindows windows = VcdiffWindows::Of(source_size, target_size, memory);
	const std::string header =
	    "-ATARNVCD1 " + std::to_string(source_size) + " " + std::to_string(target_size) + " " + HashOf(target_file);
	return {"-e", "-9", "-f", "-q", "-S",
	    "none",     // the package is compressed as a whole, which takes less than every patch by itself
	    "-D", "-R", // compressed files are patched as they are
	    "-I", "0",  // no limit to instructions that are looked at together
	    "-B", std::to_string(windows.source), "-W", std::to_string(windows.target), header, "-s", source, target,
	    patch};
}

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

/** Makes patch and script one after the other, measures them, and keeps what the plan chooses. */
class Contest {
public:
	Contest(const EncodingTask& task, const Encoders& encoders, const std::string& scratch)
	    : task_(task), encoders_(encoders), scratch_(scratch) {}

	void TryPatch() {
		// A patch of nothing, or to nothing, is the file itself.
		const bool possible = encoders_.vcdiff && task_.change.before->size > 0 && task_.change.after->size > 0;
		if (possible && (task_.may_patch || task_.is_database)) {
			result_.costs.patch = Try(PatchKind::kVcdiff, task_.may_patch, [this](const std::string& path) {
				EncodeVcdiff(*encoders_.vcdiff, task_.change.before->source, task_.change.after->source, path, scratch_,
				    encoders_.memory);
			});
		}
	}

	void TryScript() {
		if (!task_.may_script) {
			return;
		}
		obstacle_ = FindScriptObstacle(task_.change.before->source, task_.change.after->source);
		if (!obstacle_) {
			result_.costs.script = Try(PatchKind::kScript, true, [this](const std::string& path) {
				const ScriptSubject subject = {task_.change.before->source, task_.change.after->source, task_.lineage};
				EncodeScript(subject, path, scratch_, {encoders_.level, encoders_.memory});
			});
		}
	}

	EncodedFile Decide() {
		const AllowedKinds allowed = {task_.may_script, task_.may_patch};
		StepCosts& costs = result_.costs;
		const std::uint64_t limit = task_.is_database ? WholeLimit(costs, allowed, task_.past)
		                                              : costs.patch.value_or(0); // 0: there is nothing to choose from
		costs.whole = CompressedSizeBelow(limit, task_.change.after->source, encoders_.level).value_or(limit);
		result_.plan = PlanKind(costs, allowed, task_.past);
		result_.kind = result_.plan.kind;
		result_.input = result_.kind == PatchKind::kWhole ? task_.change.after->source : PathOf(result_.kind);
		if (result_.kind == PatchKind::kWhole && obstacle_ && result_.warning.empty()) {
			result_.warning =
			    "\"" + Printable(task_.change.name) + "\" is carried whole, because a script cannot: " + *obstacle_;
		}
		return result_;
	}

private:
	std::string PathOf(PatchKind kind) const { return scratch_ + "/result" + PatchKindExtension(kind); }

	/** The compressed size of what was made; no value when it cannot be made. */
	template<typename Encode>
	std::optional<std::uint64_t> Try(PatchKind kind, bool is_wanted, const Encode& encode) {
		try {
			encode(PathOf(kind));
		} catch (const std::exception& error) {
			if (is_wanted) {
				result_.warning = "\"" + Printable(task_.change.name) + "\" is carried in another way than " +
				                  PatchKindName(kind) + ": " + error.what();
			}
			return std::nullopt;
		}
		return CompressedSizeBelow(kNoLimit, PathOf(kind), encoders_.level);
	}

	const EncodingTask& task_;
	const Encoders& encoders_;
	const std::string& scratch_;
	std::optional<std::string> obstacle_; // to a script
	EncodedFile result_;
};

std::uint64_t SizeOf(const std::optional<TreeFile>& file) {
	return file ? file->size : 0;
}

/** Memory that tasks take from and give back. */
struct SharedMemory {
	explicit SharedMemory(std::uint64_t bytes) : free(bytes) {}

	Mutex mutex;
	std::condition_variable_any changed;
	std::uint64_t free TARN_GUARDED_BY(mutex);
};

/** A task's part of the memory, for as long as the object lives. */
class Share {
public:
	/** Waits until so much is free, which must not be more than there is in all. */
	Share(SharedMemory& memory, std::uint64_t bytes) : memory_(memory), bytes_(bytes) {
		const MutexLock lock(memory_.mutex);
		while (memory_.free < bytes_) {
			memory_.changed.wait(memory_.mutex);
		}
		memory_.free -= bytes_;
	}
	~Share() {
		{
			const MutexLock lock(memory_.mutex);
			memory_.free += bytes_;
		}
		memory_.changed.notify_all();
	}
	Share(const Share&) = delete;
	Share& operator=(const Share&) = delete;

private:
	SharedMemory& memory_;
	std::uint64_t bytes_;
};

} // namespace

VcdiffWindows VcdiffWindows::Of(std::uint64_t source_size, std::uint64_t target_size, std::uint64_t memory) {
	constexpr std::uint64_t kMinWindow = std::uint64_t{512} << 10U; // the encoder's limits
	constexpr std::uint64_t kMaxWindow = std::uint64_t{16} << 20U;
	constexpr std::uint64_t kMaxSourceWindow = std::uint64_t{2} << 30U;
	VcdiffWindows windows;
	windows.source = NextPowerOfTwo(source_size, kMinWindow, kMaxSourceWindow);
	windows.target = NextPowerOfTwo(target_size, kMinWindow, kMaxWindow);
	while (windows.target > kMinWindow && VcdiffWindows{0, windows.target}.Memory(source_size) > memory / 4) {
		windows.target /= 2;
	}
	while (windows.source > kMinWindow && windows.Memory(source_size) > memory) {
		windows.source /= 2;
	}
	return windows;
}

std::uint64_t VcdiffWindows::Memory(std::uint64_t source_size) const {
	// Where its pieces are goes by the window, whatever part of it the file fills.
	constexpr std::uint64_t kIndexPerByte = 2;
	constexpr std::uint64_t kLargestIndex = std::uint64_t{1} << 30U;
	constexpr std::uint64_t kPerTargetByte = 5;
	return std::min(source, source_size) + std::min(kIndexPerByte * source, kLargestIndex) + kPerTargetByte * target;
}

void EncodeVcdiff(const std::string& encoder, const std::string& source, const std::string& target,
    const std::string& patch, const std::string& scratch, std::uint64_t memory) {
	RunProgram(encoder, Arguments(source, target, patch, memory), scratch + "/output", scratch + "/errors");
	const std::string result = scratch + "/decoded";
	try {
		decoder::DecodeFile(source, result, patch);
	} catch (const std::exception& error) {
		throw PublishError("the patch cannot be decoded: " + std::string(error.what()));
	}
	const bool same = SameBytes(result, target);
	fs::remove(result);
	if (!same) {
		throw PublishError("the patch makes another file");
	}
}

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
	if (!task.change.before || task.change.before->executable != task.change.after->executable) {
		return {PatchKind::kWhole, task.change.after->source, {}, {}, {}};
	}
	Contest contest(task, encoders, scratch);
	contest.TryPatch();
	contest.TryScript();
	return contest.Decide();
}

std::uint64_t MemoryOf(const EncodingTask& task, std::uint64_t limit) {
	constexpr std::uint64_t kRowsPerByte = 16; // where rows are matched that hold next to nothing
	const std::uint64_t before = SizeOf(task.change.before);
	const std::uint64_t after = SizeOf(task.change.after);
	const std::uint64_t rows = task.is_database ? kRowsPerByte * std::max(before, after) : 0;
	return std::min(limit, std::max(VcdiffWindows::Of(before, after, limit).Memory(before), rows));
}

std::vector<EncodedFile> EncodeFiles(const std::vector<EncodingTask>& tasks, const Encoders& encoders,
    const WorkDirectory& work, const std::function<void(std::size_t done)>& step) {
	std::vector<std::size_t> order(tasks.size());
	std::iota(order.begin(), order.end(), 0);
	std::stable_sort(order.begin(), order.end(), [&tasks](std::size_t left, std::size_t right) {
		return SizeOf(tasks[left].change.after) > SizeOf(tasks[right].change.after);
	});
	std::vector<EncodedFile> encoded(tasks.size());
	SharedMemory memory(encoders.memory);
	const auto encode = [&](std::size_t at) {
		const EncodingTask& task = tasks[order[at]];
		Encoders own = encoders;
		own.memory = MemoryOf(task, encoders.memory);
		const Share share(memory, own.memory);
		encoded[order[at]] = EncodeFile(task, own, work.Make("encoding/" + std::to_string(order[at])));
	};
	DoInParallel(order.size(), encode, step);
	return encoded;
}

} // namespace tarn::publisher
