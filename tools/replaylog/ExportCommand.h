#ifndef TOOLS_REPLAYLOG_EXPORTCOMMAND_H
#define TOOLS_REPLAYLOG_EXPORTCOMMAND_H

// replaylog export: every item of the selected records as a row.

#include <string>

#include "tools/replaylog/ToolSupport.h"

namespace ReplayLogTool {

enum class ExportFormat { kCsv, kJsonLines };

// Columns: time, client, data_type, sequence, encoding ("text" or
// "base64"), data. CSV comes with a header line.
int RunExport(const CommonOptions& options, const RecordFilter& filter, ExportFormat format);

std::string Base64(const std::string& bytes);

}  // namespace ReplayLogTool

#endif
