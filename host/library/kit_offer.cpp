#include "host/library/kit_offer.h"

#include "base/error.h"
#include "dataupdate/update_error.h"
#include "host/library/checked_info_getter.h"
#include "host/library/failure.h"
#include "host/library/installed_package.h"
#include "kit/reader.h"

#include <json/reader.h>
#include <json/value.h>

#include <map>
#include <optional>
#include <set>
#include <utility>

namespace tarn::ctl {

using dataupdate::DiffInfo;
using dataupdate::RemoteInfo;
using dataupdate::UpdateError;

namespace {

constexpr char kCopyAgain[] = "; nothing was changed, copy the kit again";

/** What a link of the document stands for. */
struct Wanted {
	kit::Kind kind;
	std::string id;
	int data_version;
};

Json::Value ParseDocument(const std::string& text) {
	constexpr int kMostNested = 64;
	Json::CharReaderBuilder builder;
	builder["stackLimit"] = kMostNested;
	const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
	Json::Value root;
	try {
		if (reader->parse(text.data(), text.data() + text.size(), &root, nullptr) && root.isObject() &&
		    root["db_list"].isObject()) {
			return root;
		}
	} catch (const Json::Exception&) {
		// Nested too deeply.
	}
	throw Error("holds a document that is none");
}

} // namespace

/** The open file, and which of its packages a link stands for. */
class KitOffer::Source : public dataupdate::DownloadSource {
public:
	explicit Source(const std::string& path)
	    : path_(path), reader_(path), document_(ParseDocument(reader_.ReadDocument())) {}

	const std::string& Path() const { return path_; }
	const kit::Reader& Reader() const { return reader_; }
	const Json::Value& Document() const { return document_; }

	void Know(const std::string& link, Wanted wanted) { links_.insert_or_assign(link, std::move(wanted)); }

	void Fetch(const std::string& url, const Sink& sink) const override {
		const auto known = links_.find(url);
		if (known == links_.end()) {
			throw UpdateError("The kit " + path_ + " has nothing for the link " + url);
		}
		const auto& [kind, id, data_version] = known->second;
		const kit::Part* const part = reader_.Find(kind, id, data_version);
		if (part == nullptr) {
			throw UpdateError(DescribeMissing(known->second));
		}
		try {
			reader_.Read(*part, sink);
		} catch (const Error& error) {
			failure_ = error.what();
			throw UpdateError("The kit " + path_ + " " + failure_ + kCopyAgain);
		}
	}

private:
	/** The full package is asked for last, when the diff packages have failed. */
	std::string DescribeMissing(const Wanted& wanted) const {
		if (!failure_.empty()) {
			return "The kit " + path_ + " " + failure_ + ", and it has no full package in its place" + kCopyAgain;
		}
		if (const std::optional<PackageRefusal> refusal = LastPackageRefusal()) {
			return "The kit " + path_ + " holds a package that " + refusal->reason +
			       ", and it has no full package in its place";
		}
		return "The kit " + path_ + " has no full package of " + wanted.id + ", and its diff packages " +
		       DescribeChain(wanted.id) +
		       " could not be used here (the system log tells why); bring a kit that was exported without --from, or "
		       "with --with-full";
	}

	std::string DescribeChain(const std::string& id) const {
		std::set<int> versions;
		for (const kit::Part& part : reader_.Parts()) {
			if (part.kind == kit::Kind::kDiff && part.id == id) {
				versions.insert(part.data_version);
			}
		}
		return versions.empty() ? ""
		                        : "from version " + std::to_string(*versions.begin() - 1) + " to " +
		                              std::to_string(*versions.rbegin());
	}

	std::string path_;
	kit::Reader reader_;
	Json::Value document_;
	std::map<std::string, Wanted> links_;
	mutable std::string failure_; // of the last package that could not be read
};

/** What the kit says of databases; what is installed is read as ever. */
class KitOffer::Info : public CheckedInfoGetter {
public:
	Info(const Services& services, std::shared_ptr<Source> source)
	    : CheckedInfoGetter(services.io, services.config), source_(std::move(source)) {}

	RemoteInfo GetRemoteInfo(const std::string& id) const override {
		RemoteInfo remote = CheckedInfoGetter::GetRemoteInfo(id);
		source_->Know(remote.download_link, {kit::Kind::kFull, id, remote.data_version});
		return remote;
	}
	std::map<int, DiffInfo> GetDiffInfos(const std::string& id) const override {
		std::map<int, DiffInfo> diffs = CheckedInfoGetter::GetDiffInfos(id);
		for (const auto& [version, diff] : diffs) {
			source_->Know(diff.download_link, {kit::Kind::kDiff, id, version});
		}
		return diffs;
	}
	std::string GetDatabaseUrl() const override { return "the kit " + source_->Path(); }

protected:
	Json::Value FetchDatabaseInfo() const override { return source_->Document(); }
	std::string CacheStamp() const override { return source_->Path(); }
	std::string DescribeUse() const override { return ""; }

private:
	std::shared_ptr<Source> source_;
};

KitOffer::KitOffer(const std::string& path) {
	try {
		source_ = std::make_shared<Source>(path);
	} catch (const kit::DamagedKit& error) {
		throw CommandError(
		    kFailed, "The kit " + path + " " + error.what() + ", so nothing was changed; copy the kit again");
	} catch (const Error& error) {
		throw CommandError(kFailed, "The kit " + path + " " + error.what() + ", so nothing was changed");
	}
}

std::vector<std::string> KitOffer::Ids() const {
	std::set<std::string> ids;
	for (const kit::Part& part : source_->Reader().Parts()) {
		if (part.kind != kit::Kind::kDocument) {
			ids.insert(part.id);
		}
	}
	return {ids.begin(), ids.end()};
}

Services KitOffer::InPlaceOfServer(const Services& services) const {
	Services own = services;
	own.info = std::make_shared<Info>(services, source_);
	own.package_size = nullptr; // Nobody is asked, least of all whom a kit's document names.
	own.restrict_download = nullptr;
	return own;
}

std::shared_ptr<const dataupdate::DownloadSource> KitOffer::Packages() const {
	return source_;
}

} // namespace tarn::ctl
