#include "tarncodesign/member_path.h"

#include "tarncodesign/archive_error.h"

#include <climits>

namespace tarn::codesign {

namespace {

std::vector<std::string> Components(std::string_view text) {
	std::vector<std::string> components;
	while (!text.empty()) {
		const std::size_t end = text.find('/');
		const std::string_view component = text.substr(0, end);
		if (!component.empty() && component != ".") {
			components.emplace_back(component);
		}
		text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
	}
	return components;
}

void RequireRelative(std::string_view text) {
	if (text.empty()) {
		throw ArchiveError("is empty");
	}
	if (text.front() == '/') {
		throw ArchiveError("is absolute");
	}
	if (text.size() >= PATH_MAX) {
		throw ArchiveError("is too long");
	}
	if (text.find('\0') != std::string_view::npos) {
		throw ArchiveError("holds a NUL");
	}
}

} // namespace

MemberPath ParseMemberName(std::string_view name) {
	RequireRelative(name);
	MemberPath path = Components(name);
	for (const std::string& component : path) {
		if (component == "..") {
			throw ArchiveError("leads out by \"..\"");
		}
	}
	if (path.size() > kMaxDepth) {
		throw ArchiveError(
		    "has " + std::to_string(path.size()) + " components; the limit is " + std::to_string(kMaxDepth));
	}
	return path;
}

std::string Joined(const MemberPath& path) {
	std::string text;
	for (const std::string& component : path) {
		text += (text.empty() ? "" : "/") + component;
	}
	return text;
}

void CheckLinkTarget(const MemberPath& link, std::string_view target) {
	RequireRelative(target);
	std::size_t ups = 0;
	bool leading = true;
	for (const std::string& component : Components(target)) {
		if (component != "..") {
			leading = false;
		} else if (!leading || ++ups >= link.size()) {
			throw ArchiveError("leads out by \"..\"");
		}
	}
}

} // namespace tarn::codesign
