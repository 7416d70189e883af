#include "publisher/repository/link_bases.h"

#include "base/text.h"

#include <set>

namespace tarn::publisher {

namespace {

std::string WithoutScheme(const std::string& url) {
	const std::size_t end = url.find("://");
	return end == std::string::npos ? url : url.substr(end);
}

} // namespace

void LinkBases::Add(const std::string& link, const std::string& name) {
	++links_[link.substr(0, link.size() - name.size())];
}

std::string LinkBases::Difference() const {
	std::set<std::string> places;
	std::string urls;
	for (const auto& [url, count] : links_) {
		places.insert(WithoutScheme(url));
		urls += (urls.empty() ? "" : ", ") + Printable(WithoutEnd(url, "/")) + " (" + std::to_string(count) + ")";
	}
	return places.size() > 1 ? urls : "";
}

} // namespace tarn::publisher
