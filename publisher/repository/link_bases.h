/** @file Where the links of a document lead to. */
#ifndef PUBLISHER_REPOSITORY_LINK_BASES_H
#define PUBLISHER_REPOSITORY_LINK_BASES_H

#include <cstdint>
#include <map>
#include <string>

namespace tarn::publisher {

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
