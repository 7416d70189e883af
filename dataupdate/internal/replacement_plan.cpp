#include "dataupdate/internal/replacement_plan.h"

#include "base/error.h"
#include "base/file_io.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/paths.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "replacement_plan.cpp";
constexpr char kBootId[] = "/proc/sys/kernel/random/boot_id";
constexpr char kFull[] = "full";
constexpr char kDiff[] = "diff";
constexpr mode_t kPrivate = 0600;
constexpr std::size_t kMostBytes = 1UL << 30;
constexpr std::size_t kPiece = 1UL << 16;
constexpr std::size_t kBeginning = 256;

std::string PlanPath(const std::string& id) {
	return StatePath(id, "replacement");
}

/** Changes whenever the system is started; empty where the kernel does not tell. */
std::string BootId() {
	try {
		constexpr std::size_t kMost = 64;
		const UniqueFd file = OpenRegularFile(AT_FDCWD, kBootId);
		std::array<char, kMost> text{};
		const ssize_t size = ReadAllAt(file.Get(), text.data(), text.size(), 0);
		return size > 0 ? std::string(text.data(), static_cast<std::size_t>(size)) : "";
	} catch (const Error&) {
		return "";
	}
}

/** Fields that each end in a zero byte, which no path has. Throws Error behind the last one. */
class FieldReader {
public:
	explicit FieldReader(std::string_view text) : text_(text) {}

	[[nodiscard]] bool IsAtEnd() const { return text_.empty(); }
	std::string_view Next() {
		const std::size_t end = text_.find('\0');
		if (end == std::string_view::npos) {
			throw Error("cut off");
		}
		const std::string_view field = text_.substr(0, end);
		text_.remove_prefix(end + 1);
		return field;
	}
	int NextNumber() {
		const std::string_view field = Next();
		int number = 0;
		const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
		if (error != std::errc() || end != field.data() + field.size()) {
			throw Error("is no number");
		}
		return number;
	}

private:
	std::string_view text_;
};

std::optional<ReplacementPlan> ReadFields(std::string_view text) {
	FieldReader reader(text);
	if (reader.Next() != BootId()) {
		return std::nullopt;
	}
	ReplacementPlan plan;
	plan.version.data_version = reader.NextNumber();
	plan.version.last_fetch_time = reader.NextNumber();
	plan.version.is_full = reader.Next() == kFull;
	plan.version.volume = reader.Next();
	plan.version.install_directory = reader.Next();
	while (!reader.IsAtEnd()) {
		const std::string_view name = reader.Next();
		plan.files.Add(name, reader.Next());
		plan.sources.Add(name, reader.Next());
	}
	return plan;
}

} // namespace

std::string IdentityOf(const std::string& path) {
	struct stat status {};
	if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
		return "";
	}
	constexpr std::size_t kDigits = 16;
	std::string identity;
	for (const std::uint64_t part :
	    {std::uint64_t{status.st_dev}, std::uint64_t{status.st_ino}, static_cast<std::uint64_t>(status.st_size),
	        static_cast<std::uint64_t>(status.st_mtim.tv_sec), static_cast<std::uint64_t>(status.st_mtim.tv_nsec)}) {
		std::array<char, kDigits> digits{};
		char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), part, kDigits).ptr;
		const auto size = static_cast<std::size_t>(end - digits.data());
		identity.append(kDigits - size, '0').append(digits.data(), size);
	}
	return identity;
}

PlanWriter::PlanWriter(const std::string& id, const PlannedVersion& version) : path_(PlanPath(id)) {
	const std::string boot_id = BootId();
	if (boot_id.empty()) {
		throw Error(std::string("no ") + kBootId);
	}
	boost::filesystem::create_directories(boost::filesystem::path(path_).parent_path());
	const std::string beside = path_ + ".tmp";
	unlink(beside.c_str()); // Of a process that was killed while it wrote.
	draft_ = CreateDraft(beside, kPrivate);
	if (!draft_) {
		throw std::system_error(errno, std::system_category(), beside);
	}
	for (const std::string& field :
	    {boot_id, std::to_string(version.data_version), std::to_string(version.last_fetch_time),
	        std::string(version.is_full ? kFull : kDiff), version.volume, version.install_directory}) {
		_Add(field);
	}
}

void PlanWriter::AddFile(std::string_view name, const std::string& source) {
	const std::string identity = IdentityOf(source);
	if (identity.empty()) {
		throw Error(source + " is no regular file");
	}
	for (const std::string_view field : {name, std::string_view(identity), std::string_view(source)}) {
		_Add(field);
	}
}

void PlanWriter::AddDeletion(std::string_view name, const std::string& source) {
	for (const std::string_view field : {name, std::string_view(), std::string_view(source)}) {
		_Add(field);
	}
}

void PlanWriter::Finish() {
	_Flush();
	if (!draft_.TakePlace(path_)) {
		throw std::system_error(errno, std::system_category(), path_);
	}
}

void PlanWriter::_Add(std::string_view field) {
	text_.append(field).push_back('\0');
	if (text_.size() >= kPiece) {
		_Flush();
	}
}

void PlanWriter::_Flush() {
	WriteFully(draft_.Fd(), text_.data(), text_.size(), draft_.Name());
	text_.clear();
}

std::optional<ReplacementPlan> ReadPlan(const std::string& id) {
	const std::string path = PlanPath(id);
	try {
		const UniqueFd file = OpenRegularFile(AT_FDCWD, path);
		return ReadFields(ReadSmallFile(file.Get(), kMostBytes, path));
	} catch (const Error&) {
		return std::nullopt; // Nothing was prepared, or a file of another form lies there: either way nothing to use.
	}
}

std::optional<int> ReadPlannedVersion(const std::string& id) {
	try {
		const UniqueFd file = OpenRegularFile(AT_FDCWD, PlanPath(id));
		std::array<char, kBeginning> text{};
		const ssize_t size = ReadAllAt(file.Get(), text.data(), text.size(), 0);
		FieldReader reader(std::string_view(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0));
		reader.Next(); // Of whichever start of the system.
		return reader.NextNumber();
	} catch (const Error&) {
		return std::nullopt;
	}
}

void RemovePlan(const std::string& id) noexcept {
	const std::string path = PlanPath(id);
	if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) {
		TARN_LOG(LOG_ERR, "Failed to remove %s: %s", path.c_str(), std::strerror(errno));
	}
}

} // namespace tarn::dataupdate
