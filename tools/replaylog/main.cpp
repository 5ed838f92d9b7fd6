// replaylog: reads stored replay logs and reports on them.

#include <CLI/CLI.hpp>
#include <string>

#include "libreplay/ReplayVersion.h"
#include "tools/replaylog/ExportCommand.h"
#include "tools/replaylog/LogFileChecks.h"
#include "tools/replaylog/ToolSupport.h"

namespace {

const char kExitHelp[] =
    "Exit status: 0 success (verify: the log is clean); 1 problems found (verify) or the "
    "operation failed (a file is missing, unreadable, not a log, or cannot be written); 2 usage "
    "error (bad option, or a client or segment the log does not have).\n";

void AddCommon(CLI::App* command, ReplayLogTool::CommonOptions& options, bool json) {
    command->add_option("logfile", options.logFile, "Stored replay log (e.g. LOGFILE.DAT)")
        ->required();
    if (json) {
        command->add_flag("--json", options.json, "Machine-readable output");
    }
    command->footer(kExitHelp);
}

void AddFilter(CLI::App* command, ReplayLogTool::RecordFilter& filter) {
    command->add_option("-c,--client", filter.clients, "Only this client (repeatable)");
    command->add_option("-s,--segment", filter.segments,
                        "Only this segment (repeatable; 1 is the first header, 0 records before "
                        "any header)");
    command->add_option("--from", filter.fromText, "Only records at or after this time (12.345)");
    command->add_option("--to", filter.toText, "Only records at or before this time (12.345)");
}

}  // namespace

int main(int argc, char** argv) {
    using namespace ReplayLogTool;
    CLI::App app{
        "Inspects stored replay logs: summaries, record dumps, consistency checks, extraction "
        "of a client's items and cutting of a smaller log that can be replayed.",
        "replaylog"};
    app.footer(kExitHelp);
    app.set_version_flag("--version", std::string("replaylog ") + LIBREPLAY_VERSION);
    app.require_subcommand(1);

    CommonOptions options;
    RecordFilter filter;
    std::string outputDirectory;
    std::string output;

    CLI::App* info = app.add_subcommand("info", "Summary per segment and per client");
    AddCommon(info, options, true);

    CLI::App* dump = app.add_subcommand("dump", "Records as text, one per line (or JSON lines)");
    AddCommon(dump, options, true);
    AddFilter(dump, filter);

    CLI::App* verify = app.add_subcommand(
        "verify", "Check checksums, sequence gaps, time order and framing; list the problems");
    AddCommon(verify, options, true);

    CLI::App* extract = app.add_subcommand(
        "extract",
        "A client's items with their times, binary items decoded: as JSON lines on standard "
        "output, or as one file per item with --out-dir");
    AddCommon(extract, options, false);
    AddFilter(extract, filter);
    extract->add_option("-o,--out-dir", outputDirectory, "Write one file per item here");

    CLI::App* cut = app.add_subcommand(
        "cut", "Write a new log with the selected records, each segment led by a header record");
    AddCommon(cut, options, true);
    AddFilter(cut, filter);
    cut->add_option("-o,--output", output, "The new log file")->required();

    std::string exportFormat = "csv";
    CLI::App* exporter = app.add_subcommand(
        "export",
        "One row per item for analysis tools: time, client, data type, sequence, encoding and "
        "the data (text, or base64 for binary items)");
    AddCommon(exporter, options, false);
    AddFilter(exporter, filter);
    exporter->add_option("--format", exportFormat, "csv (with a header line) or jsonl")
        ->check(CLI::IsMember({"csv", "jsonl"}));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? kExitOk : kExitUsage;
    }

    const ReplayPlatform::Status prepared = filter.Prepare();
    if (!prepared.IsOk()) {
        ReportError(prepared.Message());
        return kExitUsage;
    }
    int status = CheckLogFile(options.logFile);
    if (status == kExitOk) {
        status = CheckFilterNamesExist(options.logFile, filter);
    }
    if (status != kExitOk) {
        return status;
    }
    if (*exporter) {
        return RunExport(options, filter,
                         exportFormat == "csv" ? ExportFormat::kCsv : ExportFormat::kJsonLines);
    }
    if (*info) {
        return RunInfo(options);
    }
    if (*dump) {
        return RunDump(options, filter);
    }
    if (*verify) {
        return RunVerify(options);
    }
    if (*extract) {
        options.json = outputDirectory.empty();
        return RunExtract(options, filter, outputDirectory);
    }
    return RunCut(options, filter, output);
}
