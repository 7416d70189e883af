/** @file A tree, a key and a repository, for the publisher's tests. */
#ifndef TARN_TESTS_PUBLISHER_FIXTURE_H
#define TARN_TESTS_PUBLISHER_FIXTURE_H

#include "publisher/publish.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace tarn::test {

/** Sets SOURCE_DATE_EPOCH for its lifetime. */
class FixedTime {
public:
	explicit FixedTime(const char* seconds) { setenv("SOURCE_DATE_EPOCH", seconds, 1); }
	FixedTime(const FixedTime&) = delete;
	FixedTime& operator=(const FixedTime&) = delete;
	~FixedTime() { unsetenv("SOURCE_DATE_EPOCH"); }
};

class PublisherTest : public ::testing::Test {
protected:
	PublisherTest();

	/** Writes a file of the tree. */
	void Put(const std::string& name, const std::string& content = "content");
	/** Publishes the tree as the options say; warnings are kept in warnings_. */
	publisher::PublishResult Publish();
	/** The text of what Publish() throws; empty when it succeeds. */
	std::string PublishError();

	std::string Package(int version, const std::string& id = "db") const;
	Json::Value Document(const std::string& version = "1") const;
	/** What a device has after installing a package: names and content. */
	std::map<std::string, std::string> InstalledFrom(const std::string& package) const;
	/** Every file of the repository by relative name, but for the lock and the note of where it is served. */
	std::vector<std::string> RepositoryFiles() const;

	TemporaryDirectory directory_;
	publisher::PublishOptions options_;
	publisher::PublishObserver observer_;
	std::vector<std::string> warnings_;
};

} // namespace tarn::test

#endif
