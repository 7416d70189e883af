#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/program.h"
#include "private_root.h"
#include "syslog_capture.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <syslog.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

ExitCode Fail(const Services&, const Options& options) {
	if (options.ids.empty()) {
		return kFixNeeded;
	}
	const std::string& kind = options.ids.front();
	if (kind == "update") {
		throw dataupdate::UpdateError("Fail to lock /run/x");
	}
	if (kind == "divided") {
		throw CommandError(kFailed, "The databases are on both");
	}
	if (kind.find(' ') != std::string::npos) {
		throw dataupdate::UpdateError(kind);
	}
	if (kind == "json") {
		throw Json::RuntimeError("deep");
	}
	if (kind == "memory") {
		throw std::bad_alloc();
	}
	throw std::out_of_range("stoi");
}

ExitCode Succeed(const Services& services, const Options& options) {
	services.terminal.Say(options.verbose ? "loud\n" : "done\n");
	return kDone;
}

class ProgramTest : public testing::Test {
protected:
	ProgramTest() {
		ON_CALL(*doubles_.io, ReadJson).WillByDefault([](const std::string& path) -> Json::Value {
			throw dataupdate::UpdateError("File not exist: " + path, dataupdate::UpdateError::kFileNotExist);
		});
	}
	int Run(std::vector<const char*> arguments) { return Run(std::move(arguments), commands_); }
	int Run(std::vector<const char*> arguments, const std::vector<Command>& commands) {
		arguments.insert(arguments.begin(), "tarndbudctl");
		const auto make_services = [this](Terminal& terminal) {
			return Services{doubles_.io, doubles_.config, doubles_.info, doubles_.services.update, doubles_.checker,
			    terminal, doubles_.services.is_available};
		};
		out_.str("");
		err_.str("");
		return RunProgram(
		    static_cast<int>(arguments.size()), arguments.data(), {out_, err_, false, make_services, commands});
	}

	test::Doubles doubles_;
	std::ostringstream out_;
	std::ostringstream err_;
	std::vector<Command> commands_ = {{"good", "Works", nullptr, {}, false, false, nullptr, Succeed},
	    {"bad", "Fails", "In many ways.", {kLocked}, false, true, kStatusCommand.declare, Fail},
	    {"group one", "First", nullptr, {}, false, false, nullptr, Succeed},
	    {"group two", "Second", nullptr, {}, false, false, nullptr, Fail}};
};

TEST_F(ProgramTest, EndsWithTheCommandsOwnStatus) {
	EXPECT_EQ(Run({"good"}), 0);
	EXPECT_EQ(out_.str(), "done\n");
	EXPECT_EQ(Run({"bad"}), 4);
	EXPECT_EQ(Run({"group", "one"}), 0);
	EXPECT_EQ(Run({"group", "two"}), 4);
}

TEST_F(ProgramTest, TurnsWhateverIsThrownIntoASentence) {
	EXPECT_EQ(Run({"bad", "update"}), 75);
	EXPECT_THAT(err_.str(), StartsWith("tarndbudctl: Fail to lock /run/x; "));
	for (const char* kind : {"json", "memory", "range"}) {
		EXPECT_EQ(Run({"bad", kind}), 1) << kind;
		EXPECT_THAT(err_.str(), StartsWith("tarndbudctl: ")) << kind;
		EXPECT_EQ(err_.str().back(), '\n') << kind;
	}
}

TEST_F(ProgramTest, ShowsTheUsageOfAWrongCommandLine) {
	for (const std::vector<const char*>& arguments : std::vector<std::vector<const char*>>{
	         {}, {"unknown"}, {"group"}, {"group", "three"}, {"good", "extra"}, {"good", "--nope"}}) {
		EXPECT_EQ(Run(arguments), 2);
		EXPECT_THAT(err_.str(), StartsWith("tarndbudctl: "));
		EXPECT_THAT(err_.str(), HasSubstr("\nUsage: tarndbudctl"));
		EXPECT_THAT(err_.str(), EndsWith(" --help\" for more.\n"));
		const std::string told = err_.str();
		EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 3) << told;
		EXPECT_EQ(out_.str(), "");
	}
	Run({"read", "db"}, AllCommands());
	EXPECT_EQ(err_.str(), "tarndbudctl: -- COMMAND... is required.\n"
	                      "Usage: tarndbudctl read [OPTIONS] ID -- COMMAND...\n"
	                      "Run \"tarndbudctl read --help\" for more.\n");
	Run({"volume", "mount"}, AllCommands());
	EXPECT_THAT(err_.str(), HasSubstr("Usage: tarndbudctl volume [OPTIONS] SUBCOMMAND\n"
	                                  "Run \"tarndbudctl volume --help\" for more.\n"));
}

TEST_F(ProgramTest, TakesGlobalOptionsBeforeAndAfterTheCommand) {
	EXPECT_EQ(Run({"--verbose", "good"}), 0);
	EXPECT_EQ(out_.str(), "loud\n");
	EXPECT_EQ(Run({"group", "one", "--verbose"}), 0);
	EXPECT_EQ(out_.str(), "loud\n");
}

TEST_F(ProgramTest, TellsItsVersionAndHelpOnStandardOutput) {
	EXPECT_EQ(Run({"--version"}), 0);
	EXPECT_THAT(out_.str(), StartsWith("tarndbudctl 1."));
	EXPECT_EQ(Run({"bad", "--help"}), 0);
	EXPECT_THAT(out_.str(), HasSubstr("In many ways."));
	EXPECT_THAT(out_.str(), HasSubstr("75  a lock was not obtained"));
	EXPECT_THAT(out_.str(), Not(HasSubstr("a fix is needed"))) << "the command does not end with 4";
	EXPECT_EQ(err_.str(), "");
}

TEST_F(ProgramTest, ShowsTheWholeUsageOfACommandThatRunsAnotherOne) {
	EXPECT_EQ(Run({"read", "--help"}, AllCommands()), 0);
	EXPECT_THAT(out_.str(), HasSubstr("Usage: tarndbudctl read [OPTIONS] ID -- COMMAND...\n"));
	EXPECT_EQ(out_.str().find("Usage:"), out_.str().rfind("Usage:"));
	EXPECT_THAT(out_.str(), HasSubstr("127  there is no such command"));
}

TEST_F(ProgramTest, SaysThatItEndedEarlyInThePlaceOfTheFailureThatCameOfIt) {
	dataupdate::RequestInterruption();
	for (const char* kind : {"update", "Fail on project 'geo': Interrupted", "Fail to wget url: http://x/",
	         "Fail to full update: Fail to lock /run/x"}) {
		EXPECT_EQ(Run({"bad", kind}), kInterrupted) << kind;
		EXPECT_EQ(err_.str(), "tarndbudctl: Interrupted; nothing is left half done.\n") << kind;
	}
	EXPECT_EQ(Run({"good"}), 0) << "what is done is done";
	dataupdate::ForgetInterruption();
}

TEST_F(ProgramTest, TellsWhatFailedOnItsOwnThoughItWasAskedToEnd) {
	dataupdate::RequestInterruption();
	EXPECT_EQ(Run({"bad", "divided"}), kInterrupted) << "it still ends by the signal";
	EXPECT_EQ(err_.str(), "tarndbudctl: The databases are on both.\n");
	EXPECT_EQ(Run({"bad", "Fail to full update: no space"}), kInterrupted);
	EXPECT_THAT(err_.str(), StartsWith("tarndbudctl: Fail to full update: no space; "));
	dataupdate::ForgetInterruption();
}

TEST_F(ProgramTest, FailsWhenItsOutputIsLost) {
	out_.setstate(std::ios::badbit);
	EXPECT_EQ(Run({"good"}), 1);
	EXPECT_THAT(err_.str(), HasSubstr("could not be written"));
}

TEST_F(ProgramTest, OffersEveryCommandThatItKnows) {
	EXPECT_EQ(Run({"--help"}, AllCommands()), 0);
	for (const char* name : {"init", "status", "update", "fix", "force-install", "import", "check", "read", "refresh",
	         "metrics", "schedule", "volume"}) {
		EXPECT_THAT(out_.str(), HasSubstr(std::string("\n  ") + name + " "));
	}
}

TEST_F(ProgramTest, NeedsRootForAllCommandsButTwo) {
	std::vector<std::string> open_to_all;
	for (const Command& command : AllCommands()) {
		if (!command.needs_root) {
			open_to_all.emplace_back(command.name);
		}
	}
	EXPECT_THAT(open_to_all, testing::UnorderedElementsAre("read", "volume show"));
}

TEST_F(ProgramTest, RefusesArgumentsThatACommandCannotUse) {
	for (const std::vector<const char*>& arguments :
	    std::vector<std::vector<const char*>>{{"init", "geo"}, {"update", "--all"}, {"update", "--jsonx"},
	        {"force-install", "geo"}, {"force-install", "geo", "x"}, {"read", "geo"}, {"read", "geo", "--"}, {"import"},
	        {"import", "--force"}, {"read", "geo", "ls"}, {"read", "--", "ls"}, {"fix", "--json=x", "geo"},
	        {"refresh", "x"}, {"volume", "mounted"}, {"check", "--force"}, {"check", "--timeout", "-1"},
	        {"schedule", "geo"}, {"schedule", "geo", "maybe"}, {"volume"}, {"volume", "show", "x"}}) {
		EXPECT_EQ(Run(arguments, AllCommands()), 2) << arguments[0];
	}
}

TEST_F(ProgramTest, TellsTheRangeOfANumberInPlainDigits) {
	EXPECT_EQ(Run({"hold", "geo", "--", "-3"}, AllCommands()), 2);
	EXPECT_THAT(err_.str(), HasSubstr("Value -3 not in range 0 to 2147483647"));
	err_.str("");
	EXPECT_EQ(Run({"check", "--timeout", "-3"}, AllCommands()), 2);
	EXPECT_THAT(err_.str(), HasSubstr("Value -3 not in range 0 to 9223372036854775807"));
}

/** All commands over files of settings. No database is configured that they name, so that most end soon. */
class EveryCommandTest : public test::FixedPathsTest {
protected:
	/** The exit status; what is printed on the error stream is in err_. */
	int Run(const std::string& name) {
		std::vector<std::string> words = Words(name);
		std::vector<const char*> arguments = {"tarndbudctl"};
		for (const std::string& word : words) {
			arguments.push_back(word.c_str());
		}
		const auto make_services = [this](Terminal& terminal) {
			return Services{std::make_shared<dataupdate::IOUtils>(), doubles_.config, doubles_.info,
			    doubles_.services.update, doubles_.checker, terminal, doubles_.services.is_available};
		};
		std::ostringstream out;
		err_.str("");
		return RunProgram(
		    static_cast<int>(arguments.size()), arguments.data(), {out, err_, false, make_services, AllCommands()});
	}
	/** A command with the arguments that it needs. */
	static std::vector<std::string> Words(const std::string& name) {
		static const std::map<std::string, std::vector<std::string>> kArguments = {{"update", {"nope"}},
		    {"check", {"nope"}}, {"fix", {"nope"}}, {"force-install", {"nope", "1"}}, {"hold", {"nope"}},
		    {"unhold", {"nope"}}, {"import", {"/nope.kit"}}, {"read", {"nope", "--", "true"}},
		    {"schedule", {"nope", "off"}}, {"volume mounted", {"/nope"}}, {"volume unmounting", {"/nope"}}};
		const std::size_t blank = std::min(name.find(' '), name.size());
		std::vector<std::string> words = {name.substr(0, blank)};
		if (blank < name.size()) {
			words.push_back(name.substr(blank + 1));
		}
		if (const auto own = kArguments.find(name); own != kArguments.end()) {
			words.insert(words.end(), own->second.begin(), own->second.end());
		}
		return words;
	}

	test::Doubles doubles_;
	std::ostringstream err_;
};

TEST_F(EveryCommandTest, FailsAndNamesAFileOfSettingsThatIsCutOff) {
	for (const char* path : {dataupdate::kServiceOverride, dataupdate::kDatabaseOverride}) {
		test::WriteFile(path, R"({"config":)");
		for (const Command& command : AllCommands()) {
			EXPECT_EQ(Run(command.name), kFailed) << command.name;
			EXPECT_EQ(
			    err_.str(), std::string("tarndbudctl: The settings in ") + path +
			                    " cannot be used: it is no JSON, or cannot be read; correct or remove that file.\n")
			    << command.name;
		}
		std::filesystem::remove(path);
	}
}

TEST_F(EveryCommandTest, TellsOrLogsAMisspeltSetting) {
	test::WriteFile(dataupdate::kServiceOverride, R"({"config":{"db_netlock":"h:1"}})");
	const std::string told = std::string(dataupdate::kServiceOverride) + ":1: there is no setting \"db_netlock\"";
	for (const char* name : {"init", "status"}) {
		Run(name);
		EXPECT_THAT(err_.str(), StartsWith("tarndbudctl: " + told)) << name;
	}
	for (const char* name : {"update", "fix", "check", "import", "force-install"}) {
		const test::SyslogCapture log;
		Run(name);
		EXPECT_EQ(log.Count(LOG_WARNING, {told}), 1U) << name;
	}
}

} // namespace
} // namespace tarn::ctl
