#include "publisher/commands/result_text.h"

#include "base/text.h"
#include "publisher/common/json_text.h"

#include <json/json.h>

#include <iomanip>
#include <sstream>

namespace tarn::publisher {

namespace {

void PrintDiff(const DiffResult& diff, const PublishResult& result, std::ostream& out) {
	constexpr double kPercent = 100;
	std::ostringstream share;
	share << std::fixed << std::setprecision(1)
	      << kPercent * static_cast<double>(diff.package_size) / static_cast<double>(result.package_size);
	out << "Diff from version " << result.data_version - 1 << ": " << HumanSize(diff.package_size) << ", "
	    << share.str() << " % of the full package; files created " << diff.created << ", replaced " << diff.replaced
	    << ", patched " << diff.patched << ", scripted " << diff.scripted << ", deleted " << diff.deleted
	    << ". Devices from version " << diff.oldest_base << " on take diff packages.\n";
}

Json::Value DiffJson(const DiffResult& diff) {
	Json::Value value(Json::objectValue);
	value["package_size"] = Json::UInt64{diff.package_size};
	value["created"] = Json::UInt64{diff.created};
	value["replaced"] = Json::UInt64{diff.replaced};
	value["patched"] = Json::UInt64{diff.patched};
	value["scripted"] = Json::UInt64{diff.scripted};
	value["deleted"] = Json::UInt64{diff.deleted};
	value["oldest_base"] = diff.oldest_base;
	return value;
}

Json::Value ResultJson(const PublishOptions& options, const PublishResult& result) {
	Json::Value value(Json::objectValue);
	value["id"] = options.id;
	value["document"] = options.db_version;
	value["is_published"] = !result.is_unchanged;
	value["is_first"] = result.is_first;
	value["data_version"] = result.data_version;
	value["files"] = Json::UInt64{result.files};
	value["tree_size"] = Json::UInt64{result.tree_size};
	value["package_size"] = Json::UInt64{result.package_size};
	value["download_link"] = result.download_link;
	value["diff"] = result.diff ? DiffJson(*result.diff) : Json::Value();
	return value;
}

void PrintVersion(const PublishOptions& options, const PublishResult& result, std::ostream& out) {
	// The default document is not worth a word.
	const std::string channel = options.db_version == PublishOptions().db_version ? "" : " to " + options.db_version;
	out << "Published " << options.id << " version " << result.data_version << channel << ": " << result.files
	    << " files, " << HumanSize(result.tree_size) << " in a package of " << HumanSize(result.package_size) << ", "
	    << result.download_link << "\n";
}

} // namespace

void PrintPublished(const PublishOptions& options, const PublishResult& result, bool json, std::ostream& out) {
	if (json) {
		out << JsonText(ResultJson(options, result), "\t") << "\n";
		return;
	}
	if (result.is_unchanged) {
		out << "Nothing published: " << options.id << " version " << result.data_version << " holds this tree.\n";
		return;
	}
	PrintVersion(options, result, out);
	if (result.is_first) {
		out << "This is the first publication of " << options.id << " in " << options.repository
		    << ": devices that have a version of it take higher ones only.\n";
	}
	if (result.diff) {
		PrintDiff(*result.diff, result, out);
	}
}

void PrintWithdrawn(const PublishOptions& options, const WithdrawResult& result, bool json, std::ostream& out) {
	if (json) {
		Json::Value value = ResultJson(options, result.published);
		value["withdrawn"] = result.published.is_unchanged ? Json::Value() : Json::Value(result.withdrawn);
		value["restored"] = result.restored;
		value["is_rebuilt"] = result.is_rebuilt;
		out << JsonText(value, "\t") << "\n";
		return;
	}
	if (result.published.is_unchanged) {
		out << "Nothing to do: version " << result.published.data_version << " has the content of version "
		    << result.restored << " already.\n";
		return;
	}
	PrintVersion(options, result.published, out);
	const int first = result.restored + 1;
	out << "The content is that of version " << result.restored << (result.is_rebuilt ? ", rebuilt" : "")
	    << ". Withdrawn: version " << first;
	if (first < result.withdrawn) {
		out << " to " << result.withdrawn;
	}
	out << ".\n";
	if (result.published.diff) {
		PrintDiff(*result.published.diff, result.published, out);
	}
}

} // namespace tarn::publisher
