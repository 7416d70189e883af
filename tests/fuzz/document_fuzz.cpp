// Hostile answers of the update server: the host takes what they say about a database or tells what is wrong with it,
// and what it takes is what it would write. The input is the document.
#include "dataupdate/update_error.h"
#include "entry.h"
#include "host/library/checked_info_getter.h"
#include "in_memory.h"
#include "scratch.h"

#include <algorithm>
#include <memory>
#include <string>

namespace {

using tarn::dataupdate::IOUtils;
using tarn::dataupdate::RemoteInfo;
using tarn::dataupdate::UpdateError;
using tarn::test::Require;

constexpr char kId[] = "geo";

/** A server that gives one answer. */
class Server : public tarn::ctl::CheckedInfoGetter {
public:
	explicit Server(std::string path)
	    : CheckedInfoGetter(std::make_shared<IOUtils>(), nullptr), path_(std::move(path)) {}
	std::string GetDatabaseUrl() const override { return "http://localhost/"; }

protected:
	Json::Value FetchDatabaseInfo() const override { return IOUtils().ReadJson(path_); }
	std::string CacheStamp() const override { return "always the same"; }
	std::string DescribeUse() const override { return ""; }

private:
	std::string path_;
};

void CheckReason(const std::string& reason) {
	constexpr const char* kBare = "is malformed";
	Require(reason.size() > std::string(kBare).size() &&
	            reason.compare(reason.size() - std::string(kBare).size(), std::string::npos, kBare) != 0,
	    "a refusal has a reason: " + reason);
	Require(tarn::test::IsOneLine(reason), "a reason is one line: " + reason);
}

void ReadOffer(const Server& server) {
	try {
		const RemoteInfo info = server.GetRemoteInfo(kId);
		Require(info.data_version >= 0, "a version is not negative");
		Require(RemoteInfo::FromJson(RemoteInfo::ToJson(info)) == info, "what is taken can be written");
	} catch (const UpdateError& error) {
		CheckReason(error.what());
	}
}

void ReadDiffs(const Server& server) {
	try {
		const auto diffs = server.GetDiffInfos(kId);
		Require(diffs.empty() || diffs.begin()->first >= 0, "a version is not negative");
	} catch (const UpdateError& error) {
		CheckReason(error.what());
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	const tarn::UniqueFd file = tarn::test::InMemory(data, size);
	const Server server("/proc/self/fd/" + std::to_string(file.Get()));
	ReadOffer(server);
	ReadDiffs(server);
	return 0;
}
