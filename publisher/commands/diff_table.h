/** @file What a diff package changes, and why each file goes as it does, for people and programs. */
#ifndef PUBLISHER_COMMANDS_DIFF_TABLE_H
#define PUBLISHER_COMMANDS_DIFF_TABLE_H

#include "publisher/packages/diff_package.h"

#include <json/json.h>

#include <ostream>

namespace tarn::publisher {

/** Adds "changes", with the plan of each database that has one, and "totals" by kind to an object. */
void AddDiffJson(const DiffPackage& diff, Json::Value& value);

/** Prints the same as tables. */
void PrintDiffTable(const DiffPackage& diff, std::ostream& out);

} // namespace tarn::publisher

#endif
