/** @file What is said about the documents of a repository. */
#ifndef PUBLISHER_REPOSITORY_DOCUMENT_SENTENCES_H
#define PUBLISHER_REPOSITORY_DOCUMENT_SENTENCES_H

#include "publisher/repository/repository.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tarn::publisher {

/** "a, b, c and 4 more". */
[[nodiscard]] std::string Listed(const std::vector<std::string>& names);

/**
 * What whoever makes a document beside others may not know: that its devices find one database in it. The document may
 * be new because its name is mistyped, or because it was lost.
 *
 * @param name  of the document, which is about to name the database
 * @param id    of the database
 * @return empty when the document is there, or is the first of all
 */
[[nodiscard]] std::string NewDocumentWarning(
    const Repository& repository, const std::string& name, const std::string& id);

/** Why a document tells nothing of a database, without a period: it does not name it, or it is not there. */
[[nodiscard]] std::string WhyNotNamed(const Repository& repository, const std::string& name, const std::string& id);

/** "1 (version 4), canary (version 5)": the documents that name a database. */
[[nodiscard]] std::string NamingDocuments(const Repository& repository, const std::string& id);

/** Counts the URLs of repositories that the links of one document begin with. */
class LinkBases {
public:
	/** @param name  what the link ends with, relative to the repository */
	void Add(const std::string& link, const std::string& name);

	/**
	 * A part of a sentence that names all URLs when they differ; else it is empty. The same place by http and by https
	 * is one: devices change over one by one.
	 */
	[[nodiscard]] std::string Difference() const;

private:
	std::map<std::string, std::uint64_t> links_; // their number, by URL
};

} // namespace tarn::publisher

#endif
