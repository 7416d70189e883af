#include "publisher/site/catalogue.h"

#include "archive/file.h"
#include "base/file_io.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/repository/repository_listing.h"
#include "publisher/repository/withdrawn_packages.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace tarn::publisher::site {

namespace {

namespace fs = std::filesystem;

constexpr const char* kLeftOut = " The site leaves this package out.";

std::optional<int> NumberOf(const Json::Value& value) {
	return value.isInt() && value.asInt() >= 0 ? std::optional(value.asInt()) : std::nullopt;
}

bool IsSet(const Json::Value& flag) {
	return flag.isBool() && flag.asBool();
}

/** The text of a key alone, whatever else is in its file. */
std::string PemOf(const std::string& path) {
	constexpr std::string_view kEnd = "-----END PUBLIC KEY-----";
	const std::string text = ReadSmallFile(OpenRegularFile(AT_FDCWD, path).Get(), archive::kMaxKeyFileSize, "it");
	const std::size_t begin = text.find("-----BEGIN PUBLIC KEY-----");
	const std::size_t end = text.find(kEnd, begin);
	return begin == std::string::npos || end == std::string::npos
	           ? ""
	           : text.substr(begin, end + kEnd.size() - begin) + "\n";
}

/** Sizes of the diff packages that lead to the offered version without a gap, the newest first. */
std::vector<std::uint64_t> ChainOf(const Entry& entry) {
	std::vector<std::uint64_t> sizes;
	int version = entry.data_version;
	for (auto file = entry.diff_files.find(version); file != entry.diff_files.end();
	     file = entry.diff_files.find(--version)) {
		sizes.push_back(static_cast<std::uint64_t>(std::max(file->second.file_size, 0)));
	}
	return sizes;
}

/** The steps of ReadCatalogue(). */
class CatalogueReader {
public:
	CatalogueReader(const std::string& repository, const PublishObserver& observer)
	    : repository_(repository), observer_(observer), listing_(ListRepository(repository)) {}

	Catalogue Run() {
		for (const auto& [name, document] : listing_.documents) {
			catalogue_.channels.push_back(name);
			if (IsSet(ParseJson(document.Text()).value_or(Json::Value(Json::objectValue))["deprecated"])) {
				all_deprecated_.insert(name);
			}
		}
		catalogue_.damaged = listing_.damaged;
		const std::set<std::string> ids = Ids();
		for (const std::string& id : ids) {
			observer_.step("reading packages", catalogue_.databases.size(), ids.size());
			ReadDatabase(id);
		}
		return std::move(catalogue_);
	}

private:
	std::set<std::string> Ids() const {
		std::set<std::string> ids;
		for (const auto& [id, packages] : listing_.packages) {
			ids.insert(id);
		}
		for (const auto& [name, document] : listing_.documents) {
			const std::vector<std::string> named = document.Ids();
			ids.insert(named.begin(), named.end());
		}
		return ids;
	}

	void ReadDatabase(const std::string& id) {
		Database database;
		database.id = id;
		database.packages = listing_.packages[id];
		ReadOffers(database);
		versions_.clear();
		for (const PackageFile& file : database.packages) {
			ReadPackage(id, file);
		}
		try {
			ReadWithdrawn(id);
		} catch (const PublishError& error) {
			observer_.warn(std::string(error.what()) + kLeftOut);
		}
		MarkTakenBack();
		for (auto version = versions_.rbegin(); version != versions_.rend(); ++version) {
			database.versions.push_back(std::move(version->second));
		}
		catalogue_.databases.push_back(std::move(database));
	}

	void ReadOffers(Database& database) const {
		for (const auto& [name, document] : listing_.documents) {
			try {
				if (std::optional<Entry> entry = document.Find(database.id)) {
					const Json::Value& published = document.EntryJson(database.id)["last_fetch_time"];
					entry->last_fetch_time = NumberOf(published).value_or(0);
					std::vector<std::uint64_t> chain = ChainOf(*entry);
					database.offers.push_back(
					    {name, std::move(*entry), IsDeprecated(name, document, database.id), std::move(chain)});
				}
			} catch (const DamagedDocument& error) {
				observer_.warn(error.what());
			}
		}
	}

	bool IsDeprecated(const std::string& name, const Document& document, const std::string& id) const {
		const Json::Value& entry = document.EntryJson(id);
		return all_deprecated_.count(name) > 0 || (entry.isObject() && IsSet(entry["deprecated"]));
	}

	Version& At(int number) {
		Version& version = versions_[number];
		version.number = number;
		return version;
	}

	void ReadPackage(const std::string& id, const PackageFile& file) {
		try {
			const PackageInfo expected = {id, "", file.data_version, file.is_diff ? kDiffKind : "full"};
			const archive::ArchiveFile package = PackageReader::OpenUnchecked(file.path, expected);
			const archive::ArchiveHead& head = package.Head();
			Version& version = At(file.data_version);
			if (file.withdrawal == 0) { // Else its time is that of the withdrawal.
				TakeMetadata(ReadMetadata(package), version);
			}
			if (file.is_diff) {
				version.diff_size = head.FileSize();
			} else {
				version.full_size = head.FileSize();
				version.unpacked_size = head.unpacked_size;
				version.files = head.entry_count;
			}
			if (file.withdrawal > 0) {
				version.is_withdrawn = true;
				version.withdrawn_by = file.withdrawal;
			}
		} catch (const PublishError& error) {
			if (fs::exists(file.path)) { // Else a publisher has removed the package meanwhile.
				observer_.warn(std::string(error.what()) + kLeftOut);
			}
		}
	}

	static void TakeMetadata(const Json::Value& metadata, Version& version) {
		version.published = PublishedTime(metadata);
		if (metadata["notes"].isString()) {
			version.notes = metadata["notes"].asString();
		}
		version.restores = NumberOf(metadata["restores"]);
	}

	/** Full packages that a withdrawal keeps out of reach: when and why they were published, if that can be read. */
	void ReadWithdrawn(const std::string& id) {
		for (const PackageFile& file : PackagesIn(WithdrawnDirectory(repository_ + "/packages/" + id), id)) {
			Version& version = At(file.data_version);
			version.is_withdrawn = true;
			const PackageInfo expected = {id, "", file.data_version, "full"};
			TakeMetadata(ReadMetadata(PackageReader::OpenUnchecked(file.path, expected)), version);
		}
	}

	/** Versions between a withdrawal and the version whose content it brings back. */
	void MarkTakenBack() {
		for (const auto& [by, withdrawal] : versions_) {
			auto version = versions_.upper_bound(withdrawal.restores.value_or(by));
			for (; version != versions_.end() && version->first < by; ++version) {
				version->second.is_withdrawn = true;
				version->second.withdrawn_by = version->second.withdrawn_by.value_or(by);
			}
		}
	}

	const std::string& repository_;
	const PublishObserver& observer_;
	RepositoryListing listing_;
	std::set<std::string> all_deprecated_; // documents that mark every database
	std::map<int, Version> versions_;      // of the database that is being read
	Catalogue catalogue_;
};

} // namespace

const Version* Database::Find(int version) const {
	const auto found = std::find_if(
	    versions.begin(), versions.end(), [&](const Version& candidate) { return candidate.number == version; });
	return found == versions.end() ? nullptr : &*found;
}

std::vector<std::string> Database::ChannelsOf(int version) const {
	std::vector<std::string> channels;
	for (const Offer& offer : offers) {
		if (offer.entry.data_version == version) {
			channels.push_back(offer.channel);
		}
	}
	return channels;
}

const Offer* Database::MainOffer() const {
	const auto found =
	    std::find_if(offers.begin(), offers.end(), [](const Offer& offer) { return offer.channel == "1"; });
	return found != offers.end() ? &*found : offers.empty() ? nullptr : &offers.front();
}

Catalogue ReadCatalogue(const std::string& repository, const PublishObserver& observer) {
	return CatalogueReader(repository, observer).Run();
}

std::vector<Key> ReadKeys(const std::vector<std::string>& files) {
	const std::vector<archive::TrustedKey> trusted = LoadPublicKeys(files);
	std::vector<Key> keys;
	for (std::size_t i = 0; i < files.size(); ++i) {
		keys.push_back({fs::path(files[i]).filename().string(), trusted[i].key.Fingerprint(), PemOf(files[i])});
	}
	return keys;
}

} // namespace tarn::publisher::site
