/** @file A tree, a key and a repository, for the publisher's tests. */
#ifndef TESTS_UNIT_SUPPORT_PUBLISHER_FIXTURE_H
#define TESTS_UNIT_SUPPORT_PUBLISHER_FIXTURE_H

#include "publisher/packages/observer.h"
#include "publisher/releases/publish.h"
#include "publisher/repository/publish_options.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::test {

// What most tests of the publisher name.
namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Optional;
using ::testing::StartsWith;

/** Sets an environment variable for its lifetime. */
class Variable {
public:
	Variable(const char* name, const std::string& value);
	Variable(const Variable&) = delete;
	Variable& operator=(const Variable&) = delete;
	~Variable();

private:
	const char* name_;
	std::optional<std::string> before_;
};

/** Makes everything that is published be of one time. */
class FixedTime : public Variable {
public:
	explicit FixedTime(const char* seconds) : Variable("SOURCE_DATE_EPOCH", seconds) {}
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

	/** Runs a function in a child process, which may kill itself; returns whether it was killed. */
	static bool IsKilled(const std::function<void()>& function) { return IsKilledAfter(kNever, function); }
	/** The same, with a kill from outside after so many microseconds. */
	static bool IsKilledAfter(int microseconds, const std::function<void()>& function);

	/** Remembers the repository as it is, for the runs of an operation that is killed. */
	void RememberRepository() const;
	/**
	 * Runs an operation from the remembered repository, killed at its first step, then at its second, and so on until
	 * it is killed no more; checks what each run has left. Returns the number of runs.
	 */
	int KilledAtEveryStep(const std::function<void()>& operation, const std::function<void()>& check);
	/**
	 * Runs it likewise, killed after 0, 1, 2 and so on times so many microseconds. Returns how many runs had not ended.
	 */
	int KilledAtMoments(
	    int count, int microseconds, const std::function<void()>& operation, const std::function<void()>& check) const;
	/** Brings the remembered repository back. */
	void BeginAgain() const;

	TemporaryDirectory directory_;
	publisher::PublishOptions options_;
	publisher::PublishObserver observer_;
	std::vector<std::string> warnings_;

private:
	static constexpr int kNever = -1;
};

} // namespace tarn::test

#endif
