#ifndef PUBLISHER_RTREE_SCRIPT_H
#define PUBLISHER_RTREE_SCRIPT_H

#include <ostream>
#include <string>

namespace tarn::publisher {

/** Whether a database has R*Trees. */
bool HasRTrees(const std::string& database);

/** Removes all R*Trees of a database file: of a copy for sqldiff, which rounds their numbers. */
void DropRTrees(const std::string& database);

/**
 * Writes statements that turn the rows of all R*Trees of one database into those of another with the same schema. A row
 * that differs is deleted and inserted, with numbers as exact as the tables hold them.
 */
void WriteRTreeChanges(const std::string& before, const std::string& after, std::ostream& script);

} // namespace tarn::publisher

#endif
