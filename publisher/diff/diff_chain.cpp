#include "publisher/diff/diff_chain.h"

#include "archive/head.h"
#include "base/error.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/device.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

constexpr const char* kScriptedKey = "scripted_files";
// Room for everything else that metadata says.
constexpr std::size_t kMaxStateSize = archive::kMaxMetadataSize - 4096;

void RefusePatch(const std::string& source, const std::string& /*output*/, const std::string& /*patch*/) {
	throw PublishError(source + " would be patched by bytes, though scripts have changed it.");
}

} // namespace

ChainState ChainState::FromMetadata(const Json::Value& metadata) {
	if (!metadata.isObject() || metadata["kind"] != kDiffKind) {
		throw PublishError("its metadata is not that of a diff package");
	}
	const Json::Value& list = metadata[kScriptedKey];
	const auto is_name = [](const Json::Value& name) { return name.isString(); };
	if (!(list.isNull() || list.isArray()) || !std::all_of(list.begin(), list.end(), is_name)) {
		throw PublishError(std::string("its metadata has no readable \"") + kScriptedKey + "\"");
	}
	ChainState state;
	for (const Json::Value& name : list) {
		state.scripted_.insert(name.asString());
	}
	return state;
}

void ChainState::ToMetadata(Json::Value& metadata) const {
	for (const std::string& name : scripted_) {
		metadata[kScriptedKey].append(name);
	}
}

ChainState ChainState::After(const std::vector<DiffMember>& changes) const {
	ChainState next = *this;
	for (const DiffMember& change : changes) {
		next.scripted_.erase(change.name);
		if (change.kind == PatchKind::kScript) {
			next.scripted_.insert(change.name);
		}
	}
	return next;
}

ChainState ChainState::Or(const ChainState& other) const {
	ChainState both = *this;
	both.scripted_.insert(other.scripted_.begin(), other.scripted_.end());
	return both;
}

bool ChainState::HasRoomFor(const std::set<std::string>& names) const {
	ChainState possible = *this;
	possible.scripted_.insert(names.begin(), names.end());
	Json::Value value;
	possible.ToMetadata(value);
	return JsonText(value).size() <= kMaxStateSize;
}

void PlansToMetadata(const std::map<std::string, Json::Value>& plans, Json::Value& metadata) {
	Json::Value with_plans = metadata;
	for (const auto& [name, plan] : plans) {
		with_plans[kPlansKey][name] = plan;
	}
	if (JsonText(with_plans).size() <= kMaxStateSize) {
		metadata = with_plans;
	}
}

DiffChain::DiffChain(
    const Repository& repository, const PackageReader& reader, const std::string& id, const Entry& newest)
    : repository_(repository), reader_(reader), id_(id) {
	for (int version = newest.data_version; newest.diff_files.count(version) > 0; --version) {
		try {
			links_.insert(links_.begin(), ReadLink(version, newest.diff_files.at(version)));
		} catch (const PublishError&) {
			if (links_.empty()) {
				throw;
			}
			break;
		}
	}
	if (!links_.empty()) {
		state_ = ChainState::FromMetadata(links_.back().package.metadata);
	}
}

DiffChain::Link DiffChain::ReadLink(int version, const DiffFile& named) const {
	const std::string path = repository_.DiffPath(id_, version, named);
	try {
		return {version, path, ReadDiffPackage(reader_.Open(path, {id_, "", version, kDiffKind}))};
	} catch (const Error& error) {
		throw PublishError("the package " + path + " " + error.what());
	}
}

const DiffChain::Link* DiffChain::Find(int version) const {
	const auto link = std::find_if(
	    links_.begin(), links_.end(), [version](const Link& candidate) { return candidate.version == version; });
	return link == links_.end() ? nullptr : &*link;
}

std::set<std::string> DiffChain::ChangedNames(int after) const {
	std::set<std::string> names;
	for (const Link& link : links_) {
		for (const DiffMember& member : link.package.members) {
			if (link.version > after && member.kind != PatchKind::kEmptied) {
				names.insert(member.name);
			}
		}
	}
	return names;
}

ChainCosts DiffChain::CostsOf(const std::string& name) const {
	ChainCosts costs;
	for (const Link& link : links_) {
		const Json::Value& plans = link.package.metadata[kPlansKey];
		if (const auto step = plans.isObject() ? CostsFromJson(plans[name]) : std::nullopt) {
			costs += *step;
		}
	}
	return costs;
}

DiffChain::Beginnings DiffChain::BeginningsOf(const std::set<std::string>& names) const {
	Beginnings beginnings;
	for (const std::string& name : names) {
		beginnings[name] = {links_.front().version - 1, true};
	}
	for (const Link& link : links_) {
		for (const DiffMember& member : link.package.members) {
			const bool leaves_bytes = member.kind == PatchKind::kWhole || member.kind == PatchKind::kVcdiff;
			if (leaves_bytes && names.count(member.name) > 0) {
				beginnings[member.name] = {link.version, member.kind == PatchKind::kVcdiff};
			}
		}
	}
	return beginnings;
}

void DiffChain::UnpackFirst(Beginnings& beginnings, const std::string& directory) const {
	std::map<int, std::vector<std::string>> members;
	for (const auto& [name, beginning] : beginnings) {
		if (beginning.is_full_package) {
			members[beginning.version].push_back(name);
		}
	}
	for (const auto& [version, names] : members) {
		try {
			reader_.Unpack(repository_.KeptPackagePath(id_, version), {id_, "", version}, directory, names);
		} catch (const PublishError&) {
			// The package was removed, or signed by a key that is no longer trusted.
			for (const std::string& name : names) {
				beginnings.erase(name);
			}
		}
	}
}

void DiffChain::UnpackSteps(const Link& link, const Beginnings& beginnings, const std::string& directory) const {
	std::vector<DiffMember> steps;
	std::vector<std::string> inputs;
	for (const DiffMember& member : link.package.members) {
		const auto beginning = beginnings.find(member.name);
		if (beginning != beginnings.end() &&
		    link.version >= beginning->second.version + (beginning->second.is_full_package ? 1 : 0)) {
			steps.push_back(member);
			inputs.push_back(member.input_file);
		}
	}
	if (!inputs.empty()) {
		reader_.Unpack(link.path, {id_, "", link.version, kDiffKind}, directory, inputs);
	}
	std::ofstream description(directory + "/" + kDescriptionName, std::ios::binary);
	if (!(description << DescriptionText(steps)).flush()) {
		throw PublishError(directory + " could not be written to.");
	}
}

std::map<std::string, std::string> DiffChain::ReplayScripts(
    const std::set<std::string>& names, const WorkDirectory& work) const {
	if (names.empty() || links_.empty()) {
		return {};
	}
	Beginnings beginnings = BeginningsOf(names);
	const std::string installed = work.Make("lineage");
	UnpackFirst(beginnings, installed);
	const std::string copies = work.Make("lineage-copies");
	try {
		DevicePatcher patcher(copies, installed, RefusePatch);
		for (const Link& link : links_) {
			const std::string package = work.Make("lineage-package");
			UnpackSteps(link, beginnings, package);
			patcher.Apply(package);
			fs::remove_all(package);
		}
		patcher.Install();
	} catch (const DeviceError& error) {
		throw PublishError(std::string("the scripts published before cannot be replayed: ") + error.what());
	}
	fs::remove_all(copies);
	std::map<std::string, std::string> files;
	for (const auto& [name, beginning] : beginnings) {
		files[name] = (fs::path(installed) / name).string();
	}
	return files;
}

} // namespace tarn::publisher
