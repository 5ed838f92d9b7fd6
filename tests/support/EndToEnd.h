#ifndef TESTS_SUPPORT_ENDTOEND_H
#define TESTS_SUPPORT_ENDTOEND_H

// The whole system as real processes: the logger service, the replay server
// and demo clients, under a private target root and on a loopback address of
// their own, with helpers to command the server and read the log back.

#include <signal.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace ReplayTest {

// REPLAY_BINARY_DIR + "/" + relative.
std::string BuiltBinary(const std::string& relative);

// A built program run as a child process, its output (stdout and stderr)
// appended to a file; `environment` entries ("NAME=value") are added to the
// test's own. Killed and reaped on destruction.
class Process : public ReplaySupport::ChildProcess {
  public:
    Process(const std::vector<std::string>& argv, const std::string& outputPath,
            const std::vector<std::string>& environment = {}) {
        Start(argv, {"", environment, outputPath});
    }
};

struct CommandResult {
    int status;
    std::string output;
};

// The last summary line a demo client prints when it ends (StopClients).
struct ClientSummary {
    bool found = false;
    size_t recorded = 0;
    size_t replayed = 0;
    bool identical = false;
    long maxErrorMs = 0;  // of the replay's timing
};

// The number after the last occurrence of `key` in `text`, or -1.
long NumberAfter(const std::string& text, const std::string& key);

// One line of a demo client's replayed-items file (DEMO_CLIENT_ITEMS).
struct ReplayedItem {
    long long index = -1;  // in the client's journal; -1: not there
    int64_t recordedMs = 0;
    int64_t momentUs = 0;  // the callback, monotonic clock
    int clockLeadMs = 0;   // the callback less the item's time, client's clock
};

// Sanitizer builds run far slower and keep memory of their own: timing
// bounds and resident sizes say nothing there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizerBuild = true;
#else
constexpr bool kSanitizerBuild = false;
#endif

// A block is sent once it is a second old; the demo client produces 60 items
// a second, so its last, unsent block holds at most about that many.
constexpr size_t kLastBlockItems = 64;

class EndToEndTest : public TargetRootTest {
  protected:
    // Prepares the target and starts the logger service and the server.
    void SetUp() override;
    void TearDown() override;

    // The target root's directories, a random loopback address and the
    // options file; SetUp's first step, for fixtures that start the
    // processes themselves.
    void PrepareTarget();
    // Starts the logger service (again) and waits until its devices exist;
    // `launcher` is a command line the service is run under (a resource
    // limit, dropped privileges).
    void StartLogger(const std::vector<std::string>& launcher = {});
    // Starts the server (again) and waits until it answers commands.
    // `reorderMs`: how long the server holds each record for ordering.
    void StartServer(int reorderMs = 1000);

    // One command to the running server through its control socket.
    CommandResult Send(const std::string& command);
    // Runs a built program (path relative to the build directory) to its end.
    CommandResult Run(std::vector<std::string> argv);
    // `replaylog dump` of the live log.
    std::string Dump();
    // Expects `replaylog verify` to find the live log intact: exit status 0.
    void ExpectLogIntact();
    // Expects `replaylog verify` to read the live log with nothing damaged or
    // skipped and, when asked, nothing out of time order (lost blocks, shown
    // as sequence gaps, are allowed); its report.
    std::string ExpectReadableLog(bool inTimeOrder = true);

    // Starts a demo client with `options` added to its command line; each
    // start has its own journal, replayed-items file and output file.
    Process& StartClient(const std::string& name, const std::vector<std::string>& options = {});
    // The journal of the client started `index`th, and the items replayed
    // to it (written when it ends).
    std::string ClientJournal(size_t index) const { return m_clientRuns.at(index) + ".journal"; }
    std::vector<ReplayedItem> ClientItems(size_t index) const;

    // Whether `send clients` lists each of the names once, running.
    bool AllRunning(const std::vector<std::string>& names);
    // Starts clients and waits until the server has all of them running.
    void StartClients(const std::vector<std::string>& names);
    void WaitUntilRunning(const std::vector<std::string>& names);

    // Records the server has passed on towards the log so far.
    long RecordsToLog();
    // Waits until the server has passed on `count` more records.
    void WaitForRecords(long count);

    // Records for `seconds` and waits until the recording has ended.
    void Record(double seconds);
    // Stops every client with SIGTERM and returns their summaries in start
    // order.
    std::vector<ClientSummary> StopClients();

    std::string LogPath() const { return Root() + "/fs/usb0/LOGFILE.DAT"; }
    std::string Address() const { return m_ip; }

    // Added to the environment of every process started after it is set.
    std::vector<std::string> m_environment;
    std::unique_ptr<Process> m_logger;
    std::unique_ptr<Process> m_server;
    std::vector<std::unique_ptr<Process>> m_clients;

  private:
    std::vector<std::string> m_clientRuns;
    int m_serverStarts = 0;
    std::string m_ip;
};

}  // namespace ReplayTest

#endif
