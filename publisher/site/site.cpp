#include "publisher/site/site.h"

#include "base/text.h"
#include "publisher/changes/changes.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/tree.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/repository.h"
#include "publisher/site/directory.h"
#include "publisher/site/kept_changes.h"
#include "publisher/site/page_parts.h"
#include "publisher/site/pages.h"

#include <algorithm>
#include <filesystem>

namespace tarn::publisher::site {

namespace {

namespace fs = std::filesystem;

/** Throws PublishError for a place where the site would replace the repository, or be taken for a part of it. */
void CheckPlace(const SiteOptions& options) {
	const fs::path repository = RealPath(options.repository);
	const fs::path out = RealPath(options.out);
	if (IsBeneath(repository, out) || IsBeneath(out, repository / "packages") ||
	    IsBeneath(out, repository / "database_info")) {
		throw PublishError("The site " + options.out + " must lie outside of the repository " + options.repository +
		                   ", or in a directory of its own in it.");
	}
}

/** A path as a URL has it. */
std::string PathInUrl(const std::string& path) {
	constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._~-/";
	std::string text;
	for (const char character : path) {
		const auto byte = static_cast<unsigned char>(character);
		text += kPlain.find(character) != std::string_view::npos ? std::string(1, character) : "%" + Hex(&byte, 1);
	}
	return text;
}

/** Where the site is served: as the options say, or below what the repository is served as; empty when unknown. */
std::string UrlOf(const SiteOptions& options) {
	if (!options.url.empty()) {
		return WithoutEnd(options.url, "/");
	}
	const fs::path repository = RealPath(options.repository);
	const fs::path out = RealPath(options.out);
	const std::optional<std::string> base = RememberedUrlOf(options.repository);
	if (!base || !IsBeneath(out, repository)) {
		return {};
	}
	return LinkTo(*base, PathInUrl(out.lexically_relative(repository).string()));
}

/** The steps of MakeSite(). */
class SiteMaker {
public:
	SiteMaker(const SiteOptions& options, const PublishObserver& observer)
	    : options_(options), observer_(observer), directory_(options.out) {}

	SiteResult Run() {
		ReadAll();
		BeginChanges();
		std::uint64_t done = 0;
		for (Database& database : catalogue_.databases) {
			observer_.step("writing pages", done++, catalogue_.databases.size());
			WriteChanges(database);
			WriteDatabase(database);
			result_.versions += database.versions.size();
		}
		WriteCommonPages();
		directory_.Commit();
		if (changes_) {
			changes_->RemoveOthers();
			result_.compared = changes_->Made();
			result_.kept = changes_->Found();
		}
		result_.databases = catalogue_.databases.size();
		result_.files = directory_.Files();
		result_.bytes = directory_.Bytes();
		return result_;
	}

private:
	void ReadAll() {
		catalogue_ = ReadCatalogue(options_.repository, observer_);
		catalogue_.title = options_.title;
		catalogue_.url = UrlOf(options_);
		catalogue_.keys = ReadKeys(options_.keys);
		result_.has_feed = !catalogue_.url.empty();
		if (!result_.has_feed) {
			observer_.warn("There is no feed, whose links need --url: where the site is served is not known.");
		}
		for (const auto& [name, sentence] : catalogue_.damaged) {
			observer_.warn(sentence + ".");
		}
	}

	void BeginChanges() {
		std::vector<std::string> keys = options_.keys;
		keys.insert(keys.end(), options_.old_keys.begin(), options_.old_keys.end());
		if (!keys.empty() && MostCompared() > 0) {
			changes_.emplace(options_.repository, keys, options_.examples, observer_);
		}
	}

	std::size_t MostCompared() const { return options_.changes.value_or(kDefaultChanges); }

	void WriteChanges(Database& database) {
		const std::size_t most = changes_ ? std::min(MostCompared(), database.versions.size()) : 0;
		for (std::size_t i = 0; i < most; ++i) {
			const Version& version = database.versions[i];
			if (const std::optional<ReleaseChanges> found = changes_->Of(database, version)) {
				database.compared.insert(version.number);
				directory_.Write(DatabasePath(database) + ChangesName(version.number),
				    ChangesPage(catalogue_, database, version, found->from, found->markup));
			}
		}
	}

	void WriteDatabase(const Database& database) {
		directory_.Write(DatabasePath(database) + "index.html", DatabasePage(catalogue_, database));
		if (database.versions.size() > kVersionsOnPage) {
			directory_.Write(DatabasePath(database) + "versions.html", VersionsPage(catalogue_, database));
		}
	}

	void WriteCommonPages() {
		directory_.Write("style.css", kStyleSheet);
		directory_.Write("channels.html", ChannelsPage(catalogue_));
		directory_.Write("trust.html", TrustPage(catalogue_));
		for (const Key& key : catalogue_.keys) {
			directory_.Write(KeyPath(key), key.pem);
		}
		if (result_.has_feed) {
			directory_.Write("feed.xml", Feed(catalogue_));
		}
		directory_.Write("index.html", IndexPage(catalogue_));
	}

	const SiteOptions& options_;
	const PublishObserver& observer_;
	WholeDirectory directory_;
	Catalogue catalogue_;
	std::optional<KeptChanges> changes_;
	SiteResult result_;
};

} // namespace

SiteResult MakeSite(const SiteOptions& options, const PublishObserver& observer) {
	if (!options.url.empty()) {
		CheckUrl(options.url);
	}
	CheckRange<std::size_t>("--examples", options.examples, 0, kMostExamples);
	if (options.changes.value_or(0) > 0 && options.keys.empty()) {
		throw UsageError("--changes needs --key, since the content of packages is read.");
	}
	RequireRepository(options.repository);
	CheckPlace(options);
	return SiteMaker(options, observer).Run();
}

} // namespace tarn::publisher::site
