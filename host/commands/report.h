/** @file What commands say of databases, and the options that several commands share. */
#ifndef HOST_COMMANDS_REPORT_H
#define HOST_COMMANDS_REPORT_H

#include "host/commands/commands.h"
#include "host/library/services.h"

#include <json/value.h>

#include <functional>
#include <string>

namespace tarn::ctl {

/** Reports the result for each database: at once as text, or at the end as one JSON array. */
class Report {
public:
	Report(const Services& services, const Options& options);

	/** The text follows the database's name and ": "; the object gets the name as its "id". */
	void Tell(const std::string& id, const std::string& text, Json::Value object);
	/** Tells of a failure after which the other databases are tried all the same. */
	void Fail(const std::string& id, const Failure& failure, const char* result = "failed");
	/** Does the work, and prints what was reported even if the work throws. */
	[[nodiscard]] ExitCode Run(const std::function<ExitCode()>& work);
	/** Runs the operation on a database; a failure is noted, and thrown all the same. */
	[[nodiscard]] ExitCode RunNoted(const std::string& id, const DatabaseOperation& operation);
	/** Runs the operation on each of the databases; a failure is reported and the others are tried. */
	[[nodiscard]] ExitCode RunEach(const std::vector<std::string>& ids, const DatabaseOperation& operation);
	/** Runs the operation on the databases that the command line names, or else on the scheduled ones. */
	[[nodiscard]] ExitCode RunNamedOrScheduled(const DatabaseOperation& operation);

private:
	[[nodiscard]] ExitCode RunScheduled(const DatabaseOperation& operation);
	void Note(const std::string& id, const Failure& failure, const char* result = "failed");
	void Print();

	const Services& services_;
	const Options& options_;
	Json::Value array_;
};

/** What an array tells of a database that an operation failed on. */
Json::Value FailureToJson(const std::string& id, const Failure& failure, const char* result = "failed");

/** {"result": result, "version": version}; null where the version is -1, nothing installed. */
Json::Value MakeResult(const char* result, int version);

/** Says something as text, or as a JSON object. */
void Answer(const Services& services, const Options& options, const std::string& text, const Json::Value& object);

/** Tells each setting that is not known on the error stream. */
void TellUnknownSettings(const Services& services);

/** With --no-wait: throws when another update is running. */
void RequireIdle(const Services& services, const Options& options);

/** Declares the arguments of a command on some or all databases. */
void DeclareDatabases(CLI::App& app, Options& options, const std::string& verb, const std::string& others);
/** Declares --json for a report on each database. */
void DeclareJsonArray(CLI::App& app, Options& options);
/** Declares --json for an answer. */
void DeclareJsonObject(CLI::App& app, Options& options);
void DeclareNoWait(CLI::App& app, Options& options);
/** Declares --timeout for the wait for a lock. */
void DeclareTimeout(CLI::App& app, Options& options, const std::string& help);

} // namespace tarn::ctl

#endif
