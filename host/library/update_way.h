/** @file By which packages an update would come. */
#ifndef HOST_LIBRARY_UPDATE_WAY_H
#define HOST_LIBRARY_UPDATE_WAY_H

#include "dataupdate/records.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::ctl {

using Diffs = std::map<int, dataupdate::DiffInfo>;

/** What is known of a database when an update of it begins. */
struct Situation {
	int installed = -1;         ///< The recorded version; -1 for none.
	bool is_unfinished = false; ///< Its files are half replaced, so that no diff package fits them.
	int offered = -1;
};

struct UpdateWay {
	bool is_chain = false; ///< Whether diff packages lead to the offered version; else the full one.
	std::string reason;    ///< The end of a sentence: why it is the full package, empty for a chain.
	std::size_t packages = 1;
	std::optional<std::uint64_t> bytes; ///< What the document announces for a chain; none for the full package.
};

/** How the library will go about it, unless a package turns out to be unusable. */
[[nodiscard]] UpdateWay FindWay(const Situation& situation, const Diffs& diffs);

} // namespace tarn::ctl

#endif
