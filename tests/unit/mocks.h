/** @file Doubles of the library's classes. */
#ifndef TESTS_UNIT_MOCKS_H
#define TESTS_UNIT_MOCKS_H

#include "dataupdate/service_config.h"
#include "dataupdate/update.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"

#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tarn::test {

class MockIOUtils : public dataupdate::IOUtils {
public:
	using Sizes = std::pair<std::uintmax_t, std::uintmax_t>;
	using Callback = std::function<void(const std::string&)>;
	MOCK_METHOD(std::uintmax_t, GetSize, (const std::string&), (const, override));
	MOCK_METHOD(Sizes, GetFsSize, (const std::string&), (const, override));
	MOCK_METHOD(Json::Value, ReadJson, (const std::string&), (const, override));
	MOCK_METHOD(void, WriteJson, (const std::string&, const Json::Value&), (const, override));
	MOCK_METHOD(bool, FileCreateOver, (const std::string&, int), (const, override));
	MOCK_METHOD(void, RmRf, (const std::string&), (const, override));
	MOCK_METHOD(void, CopyFile, (const std::string&, const std::string&), (const, override));
	MOCK_METHOD(void, Download, (const std::string&, const std::string&), (const, override));
	MOCK_METHOD(void, TarnMkdir, (const std::string&), (const, override));
	MOCK_METHOD(void, IterateDirectory, (const std::string&, const Callback&, bool), (const, override));
};

class MockConfig : public dataupdate::Config {
public:
	MockConfig() : Config(nullptr) {}
	MOCK_METHOD(void, Init, (const std::string&, const std::string&), (override));
	MOCK_METHOD(std::string, Get, (const std::string&, const std::string&), (const, override));
	MOCK_METHOD(unsigned long, GetAsUInt64, (const std::string&, const std::string&), (const, override));
	MOCK_METHOD(bool, GetAsBool, (const std::string&, const std::string&), (const, override));
	MOCK_METHOD(void, Set, (const std::string&, const std::string&, const std::string&), (const, override));
	MOCK_METHOD(void, Set, (const std::string&, const std::string&, const char*), (const, override));
	MOCK_METHOD(void, Set, (const std::string&, const std::string&, unsigned long), (const, override));
	MOCK_METHOD(void, Set, (const std::string&, const std::string&, bool), (const, override));
	MOCK_METHOD(std::vector<std::string>, GetSections, (), (const, override));
};

class MockDatabaseConfig : public dataupdate::DatabaseConfig {
public:
	MockDatabaseConfig() : DatabaseConfig("", "", std::make_shared<testing::NiceMock<MockConfig>>()) {}
	MOCK_METHOD(bool, GetScheduled, (), (const, override));
	MOCK_METHOD(void, SetScheduled, (bool), (const, override));
	MOCK_METHOD(std::string, GetFormatVersion, (), (const, override));
	MOCK_METHOD(std::string, GetInstallPrefix, (), (const, override));
	MOCK_METHOD(std::string, GetRootDirectory, (), (const, override));
	MOCK_METHOD(unsigned long, GetMinReservedSpaceInbytes, (), (const, override));
};

class MockServiceConfig : public dataupdate::ServiceConfig {
public:
	MockServiceConfig() : ServiceConfig(std::make_shared<testing::NiceMock<MockConfig>>()) {}
	MOCK_METHOD(std::vector<std::string>, GetDatabaseIDs, (), (const, override));
	MOCK_METHOD(
	    std::shared_ptr<dataupdate::DatabaseConfig>, GetDatabaseConfig, (const std::string&), (const, override));
	MOCK_METHOD(void, CheckSupported, (const std::string&), (const, override));
	MOCK_METHOD(std::string, GetDownloadScheme, (), (const, override));
	MOCK_METHOD(std::string, GetDBInfoDomainName, (), (const, override));
	MOCK_METHOD(std::string, GetDBInfoVersion, (), (const, override));
	MOCK_METHOD(std::string, GetCurVolume, (), (const, override));
	MOCK_METHOD(void, SetCurVolume, (const std::string&), (const, override));
};

class MockInfoGetter : public dataupdate::InfoGetter {
public:
	using Diffs = std::map<int, dataupdate::DiffInfo>;
	MockInfoGetter() : InfoGetter(nullptr, nullptr) {}
	MOCK_METHOD(dataupdate::RemoteInfo, GetRemoteInfo, (const std::string&), (const, override));
	MOCK_METHOD(Diffs, GetDiffInfos, (const std::string&), (const, override));
	MOCK_METHOD(dataupdate::DatabaseStatus, GetDatabaseStatus, (const std::string&), (const, override));
	MOCK_METHOD(void, SetDatabaseStatus, (const std::string&, const dataupdate::DatabaseStatus&), (const, override));
	MOCK_METHOD(Json::Value, GetDatabaseInfo, (), (const, override));
	MOCK_METHOD(std::string, GetDatabaseUrl, (), (const, override));
	MOCK_METHOD(std::string, GetQueryString, (), (const, override));
};

class MockUpdater : public dataupdate::Updater {
public:
	using Diffs = MockInfoGetter::Diffs;
	MOCK_METHOD(dataupdate::DatabaseStatus, Update,
	    (const std::string&, const dataupdate::DatabaseStatus&, const dataupdate::RemoteInfo&, const Diffs&,
	        const std::string&, const std::string&, const std::string&),
	    (const, override));
};

} // namespace tarn::test

#endif
