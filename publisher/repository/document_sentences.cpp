#include "publisher/repository/document_sentences.h"

#include "base/text.h"

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

namespace tarn::publisher {

namespace {

/** What a document names but for one database; nothing for a document that cannot be read, of which others warn. */
std::vector<std::string> OtherIds(const std::string& path, const std::string& id) {
	try {
		std::vector<std::string> ids = Document(path).Ids();
		ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
		return ids;
	} catch (const PublishError&) {
		return {};
	}
}

/** What the document that names most names besides a database, and the document. */
std::string Lacking(const Repository& repository, const std::vector<std::string>& documents, const std::string& id) {
	std::pair<std::vector<std::string>, std::string> most;
	for (const std::string& name : documents) {
		std::vector<std::string> ids = OtherIds(repository.DocumentPath(name), id);
		if (ids.size() > most.first.size()) {
			most = {std::move(ids), name};
		}
	}
	return most.first.empty() ? "" : ", and not " + Listed(most.first) + ", which " + Printable(most.second) + " names";
}

bool IsAmong(const std::vector<std::string>& names, const std::string& name) {
	return std::find(names.begin(), names.end(), name) != names.end();
}

std::string WithoutScheme(const std::string& url) {
	const std::size_t end = url.find("://");
	return end == std::string::npos ? url : url.substr(end);
}

} // namespace

std::string Listed(const std::vector<std::string>& names) {
	constexpr std::size_t kMostNames = 3;
	std::string text;
	for (std::size_t at = 0; at < std::min(names.size(), kMostNames); ++at) {
		text += (at == 0 ? "" : ", ") + Printable(names[at]);
	}
	return names.size() > kMostNames ? text + " and " + std::to_string(names.size() - kMostNames) + " more" : text;
}

std::string NewDocumentWarning(const Repository& repository, const std::string& name, const std::string& id) {
	const std::vector<std::string> documents = repository.DocumentNames();
	if (documents.empty() || IsAmong(documents, name)) {
		return "";
	}
	return "The document " + name + " is new, beside " + Listed(documents) + ": devices that ask for it find " + id +
	       " alone" + Lacking(repository, documents, id) + ".";
}

std::string WhyNotNamed(const Repository& repository, const std::string& name, const std::string& id) {
	const std::vector<std::string> documents = repository.DocumentNames();
	if (IsAmong(documents, name)) {
		return "The document " + repository.DocumentPath(name) + " does not name " + id;
	}
	return "There is no document " + repository.DocumentPath(name) +
	       (documents.empty() ? "" : ", only " + Listed(documents));
}

std::string NamingDocuments(const Repository& repository, const std::string& id) {
	std::string text;
	for (const auto& [name, entry] : repository.EntriesOf(id)) {
		text += (text.empty() ? "" : ", ") + Printable(name) + " (version " + std::to_string(entry.data_version) + ")";
	}
	return text;
}

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
