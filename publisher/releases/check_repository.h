/** @file Whether a repository is what its documents say, for a monitor. */
#ifndef PUBLISHER_RELEASES_CHECK_REPOSITORY_H
#define PUBLISHER_RELEASES_CHECK_REPOSITORY_H

#include "publisher/packages/observer.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn::publisher {

enum class Severity {
	kUntidy, ///< nothing that devices notice
	kBroken  ///< devices fail, or take the long way
};

struct RepositoryProblem {
	Severity severity = Severity::kUntidy;
	std::string where; // a document and a database, or a path
	std::string what;  // a sentence without its end
};

/** As many problems as are kept; further ones are only counted. */
constexpr std::size_t kMostProblems = 1000;

struct RepositoryCheckOptions {
	std::string repository;
	std::vector<std::string> keys; // public keys, one of which must have signed a package; empty for no such check
	std::vector<std::string> documents = {"1"}; // those that devices ask for: each must be there
};

struct CheckResult {
	std::uint64_t documents = 0;
	std::uint64_t entries = 0;  // of databases in documents
	std::uint64_t packages = 0; // that documents name, each counted once
	std::uint64_t bytes = 0;    // of these
	bool is_publishing = false; // a publisher is at work, so what documents do not name was not judged
	std::vector<RepositoryProblem> problems;
	std::uint64_t broken = 0;
	std::uint64_t untidy = 0;
	std::uint64_t removable_files = 0; // by Prune(), as far as this process may see them
	std::uint64_t removable_bytes = 0;
};

/**
 * Checks every document, every package that a document names, and what else lies in the repository. Reads only, and
 * holds no publisher off but for the moment in which names are listed. What a publisher has changed since is no
 * problem.
 *
 * Takes memory for the names of packages and the problems, not for packages.
 *
 * @throws PublishError when the repository cannot be read
 */
CheckResult CheckRepository(const RepositoryCheckOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
