#ifndef TESTS_SUPPORT_ENDTOEND_H
#define TESTS_SUPPORT_ENDTOEND_H

// The whole system as real processes under a private target root.

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

// A child process with its output in a file; killed and reaped at the end.
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

struct ClientSummary {
    bool found = false;
    size_t recorded = 0;
    size_t replayed = 0;
    bool identical = false;
};

long NumberAfter(const std::string& text, const std::string& key);

// One line of a demo client's replayed-items file (DEMO_CLIENT_ITEMS).
struct ReplayedItem {
    long long index = -1;  // in the client's journal; -1: not there
    int64_t recordedMs = 0;
    int64_t momentUs = 0;  // of the callback, monotonic clock
    int clockLeadMs = 0;   // the client's clock at the callback less the item's time
};

// Timing bounds and resident sizes say nothing in slow sanitizer builds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizerBuild = true;
#else
constexpr bool kSanitizerBuild = false;
#endif

class EndToEndTest : public TargetRootTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // For fixtures that start the processes themselves.
    void PrepareTarget();
    // `launcher`: a command line the service runs under (a resource limit).
    void StartLogger(const std::vector<std::string>& launcher = {});
    // `reorderMs`: the hold for ordering; a second keeps demo clients' records
    // in order.
    void StartServer(int reorderMs = 1000);

    CommandResult Send(const std::string& command);
    CommandResult Run(std::vector<std::string> argv);
    std::string Dump();
    void ExpectLogIntact();
    // Nothing damaged or skipped; lost blocks allowed. Returns the report.
    std::string ExpectReadableLog(bool inTimeOrder = true);

    Process& StartClient(const std::string& name, const std::vector<std::string>& options = {});
    std::string ClientJournal(size_t index) const { return m_clientRuns.at(index) + ".journal"; }
    // Written when the client ends.
    std::vector<ReplayedItem> ClientItems(size_t index) const;

    bool AllRunning(const std::vector<std::string>& names);
    void StartClients(const std::vector<std::string>& names);
    void WaitUntilRunning(const std::vector<std::string>& names);
    // Waits until the server has passed on `count` more records to the log.
    void WaitForRecords(long count);
    void Record(double seconds);
    std::vector<ClientSummary> StopClients();

    std::string LogPath() const { return Root() + "/fs/usb0/LOGFILE.DAT"; }
    std::string Address() const { return m_ip; }

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
