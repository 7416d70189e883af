#include "sql_script.h"

#include "interruption.h"
#include "update_error.h"
#include "utils.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <boost/filesystem.hpp>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>

namespace tarn::dataupdate {

namespace {

bool IsOneOf(const char* name, std::initializer_list<const char*> names) {
	return name != nullptr && std::any_of(names.begin(), names.end(),
	                              [name](const char* other) { return sqlite3_stricmp(name, other) == 0; });
}

int Authorize(void* /*context*/, int action, const char* first, const char* second, const char* /*database*/,
    const char* /*trigger*/) {
	switch (action) {
	case SQLITE_TRANSACTION:
	case SQLITE_ATTACH:
	case SQLITE_DETACH:
		return SQLITE_DENY;
	case SQLITE_FUNCTION:
		return IsOneOf(second, {"load_extension", "fts3_tokenizer"}) ? SQLITE_DENY : SQLITE_OK;
	case SQLITE_PRAGMA:
		// Others take away the journal that a rollback needs, move files, or hold for the whole process.
		return IsOneOf(first, {"user_version", "application_id", "foreign_keys", "defer_foreign_keys"}) ? SQLITE_OK
		                                                                                                : SQLITE_DENY;
	default:
		return SQLITE_OK;
	}
}

/** Asked every so many instructions, because a single statement may run for long. */
int IsToBeEnded(void* /*context*/) {
	return IsInterrupted() ? 1 : 0;
}

/** Keeps a script within its transaction and its file, for as long as the object lives. */
class Restriction {
public:
	explicit Restriction(SQLite::Database& database) : database_(database) {
		constexpr int kInstructions = 10'000;
		database_.check(sqlite3_set_authorizer(database_.getHandle(), Authorize, nullptr));
		sqlite3_progress_handler(database_.getHandle(), kInstructions, IsToBeEnded, nullptr);
	}
	~Restriction() {
		sqlite3_progress_handler(database_.getHandle(), 0, nullptr, nullptr);
		sqlite3_set_authorizer(database_.getHandle(), nullptr, nullptr);
	}
	Restriction(const Restriction&) = delete;
	Restriction& operator=(const Restriction&) = delete;

private:
	SQLite::Database& database_;
};

void ExecuteLines(SQLite::Database& database, const std::string& script) {
	const Restriction restriction(database);
	std::ifstream lines(script, std::ios::binary);
	std::string line;
	while (std::getline(lines, line)) {
		InterruptionPoint();
		// SQLite would take the line for finished there.
		if (line.find('\0') != std::string::npos) {
			throw std::runtime_error("zero byte in " + script);
		}
		database.exec(line);
	}
	if (!lines.eof()) {
		throw std::runtime_error("unable to read " + script);
	}
}

/** A file under one of these names is part of the database for SQLite, whoever made it. */
void CheckStandsAlone(const std::string& database) {
	static constexpr std::array<const char*, 3> kCompanions = {"-wal", "-shm", "-journal"};
	for (const char* suffix : kCompanions) {
		if (boost::filesystem::exists(boost::filesystem::symlink_status(database + suffix))) {
			throw std::runtime_error("unexpected file " + database + suffix);
		}
	}
}

/** Then no byte of the database is looked at, so that any file will do. */
bool IsEmpty(const std::string& script) {
	boost::system::error_code error;
	return boost::filesystem::file_size(script, error) == 0 && !error;
}

} // namespace

void ExecuteSqlScript(const std::string& database, const std::string& script) {
	try {
		const bool is_empty = IsEmpty(script);
		if (!is_empty) {
			CheckStandsAlone(database);
		}
		{
			SQLite::Database file(database, SQLite::OPEN_READWRITE, 0);
			if (!is_empty) {
				file.exec("PRAGMA synchronous = OFF");
			}
			SQLite::Transaction transaction(file);
			ExecuteLines(file, script);
			transaction.commit();
		}
		// In WAL mode the content reaches the file only when it is closed, and a failure then is told to nobody.
		if (!is_empty) {
			CheckStandsAlone(database);
		}
	} catch (const std::exception& error) {
		throw UpdateError((NoexceptFormat("Fail apply sql cmd: %s") % error.what()).str());
	}
}

} // namespace tarn::dataupdate
