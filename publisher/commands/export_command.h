/** @file The command "export". */
#ifndef PUBLISHER_COMMANDS_EXPORT_COMMAND_H
#define PUBLISHER_COMMANDS_EXPORT_COMMAND_H

#include "publisher/kits/export.h"

#include <ostream>

namespace CLI {
class App;
}

namespace tarn::publisher {

void AddExport(CLI::App& app, ExportOptions& options, bool& json);

/** Says what a kit holds. */
void PrintExported(const ExportOptions& options, const ExportResult& result, bool json, std::ostream& out);

} // namespace tarn::publisher

#endif
