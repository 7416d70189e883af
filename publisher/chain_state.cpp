#include "publisher/chain_state.h"

#include "archive/head.h"
#include "publisher/json_text.h"
#include "publisher/publish_error.h"

#include <algorithm>

namespace tarn::publisher {

namespace {

constexpr const char* kScriptedKey = "scripted_files";
constexpr const char* kPatchedKey = "patched_databases";
constexpr const char* kClosedKey = "no_new_scripts";

std::set<std::string> ReadNames(const Json::Value& metadata, const char* key) {
	const Json::Value& list = metadata[key];
	const auto is_name = [](const Json::Value& name) { return name.isString(); };
	if (!(list.isNull() || list.isArray()) || !std::all_of(list.begin(), list.end(), is_name)) {
		throw PublishError(std::string("its metadata has no readable \"") + key + "\"");
	}
	std::set<std::string> names;
	for (const Json::Value& name : list) {
		names.insert(name.asString());
	}
	return names;
}

void WriteNames(Json::Value& metadata, const char* key, const std::set<std::string>& names) {
	for (const std::string& name : names) {
		metadata[key].append(name);
	}
}

} // namespace

ChainState ChainState::FromMetadata(const Json::Value& metadata) {
	if (!metadata.isObject() || metadata["kind"] != kDiffKind) {
		throw PublishError("its metadata is not that of a diff package");
	}
	ChainState state;
	state.scripted_ = ReadNames(metadata, kScriptedKey);
	state.patched_ = ReadNames(metadata, kPatchedKey);
	state.closed_ = metadata[kClosedKey] == Json::Value(true);
	return state;
}

void ChainState::ToMetadata(Json::Value& metadata) const {
	WriteNames(metadata, kScriptedKey, scripted_);
	WriteNames(metadata, kPatchedKey, patched_);
	if (closed_) {
		metadata[kClosedKey] = true;
	}
}

FileLineage ChainState::Of(const std::string& name) const {
	if (scripted_.count(name) > 0) {
		return FileLineage::kScripted;
	}
	return closed_ || patched_.count(name) > 0 ? FileLineage::kPatched : FileLineage::kOpen;
}

ChainState ChainState::After(const std::vector<DiffMember>& changes, const std::set<std::string>& databases) const {
	ChainState next = *this;
	for (const DiffMember& change : changes) {
		next.scripted_.erase(change.name);
		next.patched_.erase(change.name);
		if (change.kind == PatchKind::kScript) {
			next.scripted_.insert(change.name);
		} else if (change.kind == PatchKind::kVcdiff && databases.count(change.name) > 0) {
			next.patched_.insert(change.name);
		}
	}
	next.Shorten();
	return next;
}

bool ChainState::HasRoomFor(const std::set<std::string>& names) const {
	ChainState possible;
	possible.scripted_ = scripted_;
	possible.scripted_.insert(names.begin(), names.end());
	possible.closed_ = true;
	return possible.FitsIntoMetadata();
}

bool ChainState::FitsIntoMetadata() const {
	// Room for everything else that metadata says.
	constexpr std::size_t kMaxSize = archive::kMaxMetadataSize - 4096;
	Json::Value value(Json::objectValue);
	ToMetadata(value);
	return JsonText(value).size() <= kMaxSize;
}

void ChainState::Shorten() {
	if (closed_ || !FitsIntoMetadata()) {
		patched_.clear();
		closed_ = true;
	}
}

} // namespace tarn::publisher
