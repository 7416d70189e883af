/** @file The names of the files that SQLite keeps beside a database, made by adding these to its name. */
#ifndef BASE_SQLITE_NAMES_H
#define BASE_SQLITE_NAMES_H

#include <array>

namespace tarn {

constexpr const char* kSqliteLog = "-wal";
constexpr const char* kSqliteSharedMemory = "-shm";
constexpr const char* kSqliteJournal = "-journal";
constexpr std::array<const char*, 3> kSqliteCompanions = {kSqliteLog, kSqliteSharedMemory, kSqliteJournal};

} // namespace tarn

#endif
