/** @file What the administrator's program runs on in its tests. */
#ifndef TESTS_UNIT_TARNDBUDCTL_DOUBLES_H
#define TESTS_UNIT_TARNDBUDCTL_DOUBLES_H

#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/library/services.h"
#include "mocks.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace tarn::test {

class MockChecker : public dataupdate::Checker {
public:
	MockChecker() : Checker(nullptr) {}
	MOCK_METHOD(bool, IsUpdating, (const std::string&), (const, override));
	MOCK_METHOD(bool, IsAnyUpdating, (), (const, override));
};

/** Services that are all doubles: two databases, "geo" and "zip", both scheduled, on "/volume1". */
struct Doubles {
	template<typename Mock>
	using Nice = std::shared_ptr<testing::NiceMock<Mock>>;

	Nice<MockIOUtils> io = std::make_shared<testing::NiceMock<MockIOUtils>>();
	Nice<MockServiceConfig> config = std::make_shared<testing::NiceMock<MockServiceConfig>>();
	Nice<MockDatabaseConfig> database = std::make_shared<testing::NiceMock<MockDatabaseConfig>>();
	Nice<MockInfoGetter> info = std::make_shared<testing::NiceMock<MockInfoGetter>>();
	Nice<MockUpdater> updater = std::make_shared<testing::NiceMock<MockUpdater>>();
	Nice<MockChecker> checker = std::make_shared<testing::NiceMock<MockChecker>>();
	std::ostringstream out;
	std::ostringstream err;
	ctl::Terminal terminal{out, err, false};
	bool is_available = true;
	/** Whether the updater's double has to take the full package. */
	bool falls_back = false;
	/** What the updater's double changes. */
	std::set<std::string> changed;
	ctl::Services services{io, config, info,
	    [this](const auto& id, const auto& status, const auto& remote, const auto& diffs, const auto& volume,
	        const auto& prefix, const auto& root, const dataupdate::UpdateAdvice& advice) {
		    if (falls_back && advice.before_full_package) {
			    advice.before_full_package();
		    }
		    return Result(updater->Update(id, status, remote, diffs, volume, prefix, root));
	    },
	    checker, terminal, [this](const std::string&) { return is_available; }};

	Doubles() {
		using testing::Return;
		const std::vector<std::string> ids = {"geo", "zip"};
		ON_CALL(*config, GetDatabaseIDs).WillByDefault(Return(ids));
		ON_CALL(*config, CheckSupported).WillByDefault([ids](const std::string& id) {
			if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
				throw dataupdate::UpdateError("Project " + id + " not supported");
			}
		});
		ON_CALL(*config, GetDatabaseConfig).WillByDefault(Return(database));
		ON_CALL(*config, GetCurVolume).WillByDefault(Return("/volume1"));
		ON_CALL(*database, GetScheduled).WillByDefault(Return(true));
		ON_CALL(*database, GetRootDirectory).WillByDefault(Return("/volume1"));
		ON_CALL(*database, GetInstallPrefix).WillByDefault(Return("/volume1/@database/autoupdate/geo"));
		ON_CALL(*info, GetRemoteInfo).WillByDefault(Return(dataupdate::RemoteInfo(5, 0, false, "http://x/")));
	}

	/** What an update by diff packages tells. */
	dataupdate::UpdateResult Result(const dataupdate::DatabaseStatus& status) const {
		std::set<std::string> names = changed;
		for (const auto& [name, file] : status.file_statuses) {
			names.insert(name);
		}
		dataupdate::UpdateResult result;
		result.data_version = status.data_version;
		result.last_fetch_time = status.last_fetch_time;
		for (const std::string& name : names) {
			const auto file = status.file_statuses.find(name);
			result.files.Add(name, file == status.file_statuses.end() ? "" : file->second.sha384_digest);
		}
		return result;
	}

	/** Makes a version the installed one, of one database or, without an id, of all. */
	void Install(int version, const std::string& id = "") {
		dataupdate::DatabaseStatus status;
		status.data_version = version;
		if (id.empty()) {
			ON_CALL(*info, GetDatabaseStatus).WillByDefault(testing::Return(status));
		} else {
			ON_CALL(*info, GetDatabaseStatus(id)).WillByDefault(testing::Return(status));
		}
	}
};

} // namespace tarn::test

#endif
