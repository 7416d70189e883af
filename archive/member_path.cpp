#include "archive/member_path.h"

#include "base/error.h"

#include <climits>

namespace tarn::archive {

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
		throw Error("is empty");
	}
	if (text.front() == '/') {
		throw Error("is absolute");
	}
	if (text.size() >= PATH_MAX) {
		throw Error("is too long");
	}
	if (text.find('\0') != std::string_view::npos) {
		throw Error("holds a NUL");
	}
}

} // namespace

MemberPath ParseMemberName(std::string_view name) {
	RequireRelative(name);
	MemberPath path = Components(name);
	for (const std::string& component : path) {
		if (component == "..") {
			throw Error("leads out by \"..\"");
		}
	}
	if (path.size() > kMaxDepth) {
		throw Error("has " + std::to_string(path.size()) + " components; the limit is " + std::to_string(kMaxDepth));
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
			throw Error("leads out by \"..\"");
		}
	}
}

} // namespace tarn::archive
