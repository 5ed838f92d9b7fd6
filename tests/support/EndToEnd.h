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

std::string BuiltBinary(const std::string& relative);

// A child process with its output in a file and `environment` ("NAME=value")
// added to the test's own; killed and reaped on destruction.
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
};

// The number after the last `key` in `text`, or -1.
long NumberAfter(const std::string& text, const std::string& key);

// One line of a demo client's replayed-items file (DEMO_CLIENT_ITEMS).
struct ReplayedItem {
    long long index = -1;  // in the client's journal; -1: not there
    int64_t recordedMs = 0;
    int64_t momentUs = 0;  // of the callback, monotonic clock
    int clockLeadMs = 0;   // the client's clock at the callback less the item's time
};

// Sanitizer builds run far slower and keep memory of their own: timing
// bounds and resident sizes say nothing there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizerBuild = true;
#else
constexpr bool kSanitizerBuild = false;
#endif

class EndToEndTest : public TargetRootTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The target's directories, a random loopback address and the options
    // file, for fixtures that start the processes themselves.
    void PrepareTarget();
    // `launcher`: a command line the service runs under (a resource limit).
    void StartLogger(const std::vector<std::string>& launcher = {});
    // `reorderMs`: the hold for ordering; a second keeps demo clients' records
    // in order.
    void StartServer(int reorderMs = 1000);

    CommandResult Send(const std::string& command);
    // A built program (path relative to the build directory), to its end.
    CommandResult Run(std::vector<std::string> argv);
    std::string Dump();
    // `replaylog verify` exits 0.
    void ExpectLogIntact();
    // Nothing damaged or skipped and, if asked, nothing out of time order;
    // lost blocks are allowed. Returns the report.
    std::string ExpectReadableLog(bool inTimeOrder = true);

    // Each start has its own journal, replayed-items and output file.
    Process& StartClient(const std::string& name, const std::vector<std::string>& options = {});
    std::string ClientJournal(size_t index) const { return m_clientRuns.at(index) + ".journal"; }
    // Written when the client ends.
    std::vector<ReplayedItem> ClientItems(size_t index) const;

    // Whether `send clients` lists each of the names once, running.
    bool AllRunning(const std::vector<std::string>& names);
    void StartClients(const std::vector<std::string>& names);
    void WaitUntilRunning(const std::vector<std::string>& names);
    // Waits until the server has passed on `count` more records to the log.
    void WaitForRecords(long count);
    void Record(double seconds);
    // SIGTERM to every client; their summaries in start order.
    std::vector<ClientSummary> StopClients();

    std::string LogPath() const { return Root() + "/fs/usb0/LOGFILE.DAT"; }
    std::string Address() const { return m_ip; }

    // For every process started after it is set.
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
