/** @file What commands on several databases share: the loop, and the account of what became of each. */
#ifndef HOST_LIBRARY_DATABASES_H
#define HOST_LIBRARY_DATABASES_H

#include "host/commands/command.h"
#include "host/library/failure.h"

#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

namespace tarn::ctl {

/** Tells, for each database, what became of it: at once as text, or at the end as one JSON array. */
class Report {
public:
	Report(Terminal& terminal, bool json);

	/** The text follows the database's name and ": "; the object gets the name as its "id". */
	void Tell(const std::string& id, const std::string& text, Json::Value object);
	/** On the error stream in either form. */
	void Complain(const std::string& id, const Failure& failure);
	/** Does the work, and whatever becomes of it, what was told so far is printed. */
	ExitCode Run(const std::function<ExitCode()>& work);

private:
	void Print();

	Terminal& terminal_;
	bool json_;
	Json::Value array_;
};

/** {"result": result, "version": version} */
Json::Value MakeResult(const char* result, int version);

/** Says something as text, or as a JSON object. */
void Answer(const Services& services, const Options& options, const std::string& text, const Json::Value& object);

/**
 * Runs an operation on each database; one that fails doesn't keep the others from being tried, unless the program has
 * been asked to end. Returns the code of the first that didn't end with kDone.
 */
ExitCode ForEachDatabase(const Services& services, const std::vector<std::string>& ids,
    const std::function<ExitCode(const std::string& id)>& operation,
    const std::function<void(const std::string& id, const Failure& failure)>& complain);

/** Runs the library's loop over all scheduled databases; a missing volume is the failure that it is to a caller. */
ExitCode RunOnScheduled(const Services& services, const Options& options, const std::function<void()>& loop);

/** Throws the failure of having no volume when there is none. */
void RequireVolume(const Services& services);
/** Throws as well when others could change what is written for a database. */
void RequireVolumeFor(const Services& services, const std::string& id);
/**
 * Throws when the volume in use went away without notice: what would be installed then lay on the file system below its
 * mount point, and would be hidden when it comes back.
 */
void RequireNoLostVolume(const Services& services);

/** With --no-wait: throws when another update is running. */
void RequireIdle(const Services& services, const Options& options);

/** Declares the arguments of a command on some or all databases. */
void DeclareDatabases(CLI::App& app, Options& options, const std::string& verb, const std::string& all);
/** Declares --json for a report on each database. */
void DeclareJsonArray(CLI::App& app, Options& options);
/** Declares --json for an answer. */
void DeclareJsonObject(CLI::App& app, Options& options);
void DeclareNoWait(CLI::App& app, Options& options);
/** Declares --timeout for the wait for a lock. */
void DeclareTimeout(CLI::App& app, Options& options, const std::string& help);

} // namespace tarn::ctl

#endif
