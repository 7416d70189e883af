#include "publisher/releases/same_content.h"

#include "archive/payload.h"
#include "base/error.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/package.h"
#include "publisher/repository/withdrawn_packages.h"

#include <filesystem>
#include <map>
#include <set>
#include <string_view>
#include <vector>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr unsigned kExecutableBits = 0111;

/** Whether a file holds what remains to be read of a member, and no more. */
bool HoldsContent(const std::string& path, archive::TarReader& reader) {
	InputFile file(path);
	std::string_view of_file;
	for (std::string_view of_member = reader.NextContent(); !of_member.empty(); of_member = reader.NextContent()) {
		while (!of_member.empty()) {
			of_file = of_file.empty() ? file.Next() : of_file;
			const std::size_t size = std::min(of_file.size(), of_member.size());
			if (size == 0 || of_file.substr(0, size) != of_member.substr(0, size)) {
				return false;
			}
			of_file.remove_prefix(size);
			of_member.remove_prefix(size);
		}
	}
	return true;
}

bool HoldsAll(const archive::ArchiveFile& archive, const Tree& tree) {
	std::map<std::string, const TreeFile*> files;
	for (const TreeFile& file : tree.files) {
		files[file.name] = &file;
	}
	archive::PayloadStream stream(archive, archive.Head().unpacked_size +
	                                           archive.Head().entry_count * archive::TarReader::kMaxOverheadPerMember +
	                                           archive::TarReader::kMaxOverheadAtEnd);
	archive::TarReader reader(stream);
	archive::Member member;
	while (reader.Next(member)) {
		const auto file = files.find(member.name);
		if (file == files.end() || member.kind != archive::MemberKind::kFile || member.size != file->second->size ||
		    ((member.mode & kExecutableBits) != 0) != file->second->executable ||
		    !HoldsContent(file->second->source, reader)) {
			return false;
		}
		files.erase(file);
	}
	return files.empty();
}

/** The packages that a withdrawal has moved, and those that stay in their place while another channel names them. */
std::vector<PackageFile> WithdrawnOf(const Repository& repository, const std::string& id, int newest) {
	const std::string directory = repository.PackageDirectory(id);
	std::vector<PackageFile> withdrawn = PackagesIn(WithdrawnDirectory(directory), id);
	const std::set<std::string> marked = MarkedPackages(directory, newest);
	for (const PackageFile& file : repository.Packages(id)) {
		if (marked.count(fs::path(file.path).filename().string()) > 0) {
			withdrawn.push_back(file);
		}
	}
	return withdrawn;
}

/** The newest of the full packages that holds a tree; -1 when none does. */
int NewestThatHolds(const std::vector<PackageFile>& packages, const std::string& id, const Tree& tree) {
	int newest = -1;
	for (const PackageFile& file : packages) {
		if (!file.is_diff && file.data_version > newest &&
		    HoldsTree(PackageReader::OpenUnchecked(file.path, {id, "", file.data_version}), file.path, tree)) {
			newest = file.data_version;
		}
	}
	return newest;
}

} // namespace

bool HoldsTree(const archive::ArchiveFile& archive, const std::string& path, const Tree& tree) {
	if (archive.Head().entry_count != tree.files.size() || archive.Head().unpacked_size != tree.total_size) {
		return false;
	}
	try {
		return HoldsAll(archive, tree);
	} catch (const Error& error) {
		throw PublishError("the package " + path + " " + error.what());
	}
}

std::optional<int> FindWithdrawn(const Repository& repository, const std::string& id, int newest, const Tree& tree) {
	const int withdrawn = NewestThatHolds(WithdrawnOf(repository, id, newest), id, tree);
	const bool is_back = withdrawn >= 0 && NewestThatHolds(repository.Packages(id), id, tree) > withdrawn;
	return withdrawn >= 0 && !is_back ? std::optional(withdrawn) : std::nullopt;
}

} // namespace tarn::publisher
