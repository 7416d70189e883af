// Hostile descriptions in a diff package whose signature is good: no name of what is taken leads out of the install
// directory, and no input file out of the package. The input is patch_infos.json.
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/update_error.h"
#include "entry.h"
#include "scratch.h"

#include <json/value.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

using tarn::dataupdate::ModifyInfo;
using tarn::dataupdate::PatchMember;
using tarn::dataupdate::UpdateError;
using tarn::test::Require;
using tarn::test::Scratch;

/** A package and an installed version, each with files, and with links that lead out. */
class Place {
public:
	Place() {
		for (const char* directory : {"package/files", "installed/zones", "outside"}) {
			fs::create_directories(scratch_ / directory);
		}
		for (const char* file :
		    {"package/files/1.new", "installed/zones/old", "installed/geo.sqlite-wal", "outside/x"}) {
			tarn::test::Put(scratch_ / file, "content");
		}
		fs::create_symlink("../outside", scratch_ / "package/link");
		fs::create_symlink("../../outside/x", scratch_ / "package/files/2.new");
		fs::create_symlink("../outside", scratch_ / "installed/link");
	}
	std::string Package() const { return scratch_ / "package"; }
	std::string Installed() const { return scratch_ / "installed"; }

private:
	Scratch scratch_;
};

/** What cannot be looked at, because a name in it is too long, leads nowhere. */
bool LiesBelow(const fs::path& path, const fs::path& root) {
	std::error_code error;
	const fs::path relative = fs::weakly_canonical(path, error).lexically_relative(root);
	return error || (!relative.empty() && *relative.begin() != "..");
}

void CheckMember(const PatchMember& member, const Place& place) {
	const fs::path target = fs::path(place.Installed()) / member.name;
	const fs::path relative = target.lexically_normal().lexically_relative(place.Installed());
	Require(!relative.empty() && relative != "." && *relative.begin() != "..", "a name stays below: " + member.name);
	// The new content of a file may itself be a link.
	const fs::path input = member.operation == "create" ? fs::path(member.input).parent_path() : fs::path(member.input);
	Require(LiesBelow(input, place.Package()), "an input file is the package's: " + member.input);
}

void FindConflicts(const std::vector<PatchMember>& members, const Place& place) {
	std::map<std::string, ModifyInfo> changes;
	for (const PatchMember& member : members) {
		changes[member.name] = {member.operation == "delete" ? ModifyInfo::kDelete : ModifyInfo::kOverride, ""};
	}
	tarn::dataupdate::CheckConflicts(changes, place.Installed());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const Place place;
	tarn::test::Put(place.Package() + "/patch_infos.json", tarn::test::Text(data, size));
	try {
		const std::vector<PatchMember> members = tarn::dataupdate::ReadPatchDescription(place.Package());
		for (const PatchMember& member : members) {
			CheckMember(member, place);
		}
		FindConflicts(members, place);
	} catch (const UpdateError& error) {
		Require(*error.what() != '\0', "a refusal has a reason");
	} catch (const Json::Exception&) {
		// A value of another type than the expected one, as is documented.
	}
	return 0;
}
