#include "tests/support/EndToEnd.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace ReplayTest {

using namespace std::chrono_literals;

std::string BuiltBinary(const std::string& relative) {
    return std::string(REPLAY_BINARY_DIR) + "/" + relative;
}

namespace {

ClientSummary ParseClientSummary(const std::string& output) {
    ClientSummary summary;
    const size_t at = output.rfind("demo_client ");
    char identical[4] = {};
    if (at != std::string::npos &&
        std::sscanf(output.c_str() + at,
                    "demo_client %*s recorded %zu items; replayed %zu items; identical in order: "
                    "%3s",
                    &summary.recorded, &summary.replayed, identical) == 3) {
        summary.found = true;
        summary.identical = std::string(identical) == "yes";
    }
    return summary;
}

}  // namespace

long NumberAfter(const std::string& text, const std::string& key) {
    const size_t at = text.rfind(key);
    return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + key.size(), nullptr, 10);
}

void EndToEndTest::SetUp() {
    ASSERT_NO_FATAL_FAILURE(PrepareTarget());
    ASSERT_NO_FATAL_FAILURE(StartLogger());
    StartServer();
}

void EndToEndTest::TearDown() {
    // Clients first: none waits on a server that has gone.
    m_clients.clear();
    m_server.reset();
    m_logger.reset();
    unsetenv("ENABLE_REPLAY");
    TargetRootTest::TearDown();
}

void EndToEndTest::PrepareTarget() {
    TargetRootTest::SetUp();
    setenv("ENABLE_REPLAY", "1", 1);
    MakeTargetDirectory("/fs/usb0");
    m_ip = RandomLoopbackAddress();
    WriteFile("ReplayConfig.txt", "serverIP:" + m_ip +
                                      ";\nexternalConnectWait:0;\n"
                                      "networkingLatency:100;\nserverLeadTime:100;\n"
                                      // Test servers leave the web page's fixed port alone.
                                      "HTTPServer:0;\n");
}

void EndToEndTest::StartLogger(const std::vector<std::string>& launcher) {
    const std::string ready = Root() + "/logger.ready";
    std::filesystem::remove(ready);  // a killed service leaves it behind
    std::vector<std::string> argv = launcher;
    argv.insert(argv.end(), {BuiltBinary("logger/replay-logger"), "--ready-file", ready});
    m_logger.reset(new Process(argv, Root() + "/logger.out", m_environment));
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(ready); }, 20s, 10ms))
        << m_logger->Output();
}

void EndToEndTest::StartServer(int reorderMs) {
    m_server.reset(new Process(
        {BuiltBinary("server/ReplayManager"), "--bind", m_ip, "--reorder-ms",
         std::to_string(reorderMs)},
        Root() + "/server" + (m_serverStarts++ > 0 ? std::to_string(m_serverStarts) : "") + ".out",
        m_environment));
    ASSERT_TRUE(
        WaitFor([&] { return Send("status").status == 0 || !m_server->Running(); }, 20s, 20ms));
    ASSERT_TRUE(m_server->Running()) << m_server->Output();
}

CommandResult EndToEndTest::Send(const std::string& command) {
    return Run({"server/ReplayManager", "send", command});
}

CommandResult EndToEndTest::Run(std::vector<std::string> argv) {
    argv[0] = BuiltBinary(argv[0]);
    CommandResult result;
    result.status = ReplaySupport::RunCommand(argv, 20s, result.output);
    return result;
}

void EndToEndTest::ExpectLogIntact() {
    const CommandResult verify = Run({"tools/replaylog/replaylog", "verify", LogPath()});
    EXPECT_EQ(verify.status, 0) << verify.output;
}

std::string EndToEndTest::ExpectReadableLog(bool inTimeOrder) {
    const CommandResult verify = Run({"tools/replaylog/replaylog", "verify", LogPath()});
    EXPECT_TRUE(verify.status == 0 || verify.status == 1) << verify.output;
    EXPECT_NE(verify.output.find(" 0 checksum failures"), std::string::npos) << verify.output;
    EXPECT_NE(verify.output.find(" 0 skipped regions"), std::string::npos) << verify.output;
    if (inTimeOrder) {
        EXPECT_NE(verify.output.find(" 0 time order violations"), std::string::npos)
            << verify.output;
    }
    return verify.output;
}

std::string EndToEndTest::Dump() {
    return Run({"tools/replaylog/replaylog", "dump", LogPath()}).output;
}

Process& EndToEndTest::StartClient(const std::string& name,
                                   const std::vector<std::string>& options) {
    const std::string run = Root() + "/" + name + "." + std::to_string(m_clients.size());
    std::vector<std::string> argv = {BuiltBinary("examples/demo_client"), name, run + ".journal"};
    argv.insert(argv.end(), options.begin(), options.end());
    m_clientRuns.push_back(run);
    std::vector<std::string> environment = m_environment;
    environment.push_back("DEMO_CLIENT_ITEMS=" + run + ".items");
    m_clients.emplace_back(new Process(argv, run + ".out", environment));
    return *m_clients.back();
}

std::vector<ReplayedItem> EndToEndTest::ClientItems(size_t index) const {
    std::vector<ReplayedItem> items;
    std::istringstream in(ReadFile(m_clientRuns.at(index) + ".items"));
    ReplayedItem item;
    while (in >> item.index >> item.recordedMs >> item.momentUs >> item.clockLeadMs) {
        items.push_back(item);
    }
    return items;
}

bool EndToEndTest::AllRunning(const std::vector<std::string>& names) {
    const std::string table = Send("clients").output;
    for (const std::string& name : names) {
        int entries = 0;
        std::istringstream lines(table);
        for (std::string line; std::getline(lines, line);) {
            entries += line.compare(0, name.size() + 1, name + " ") == 0 &&
                       line.find("Running") != std::string::npos;
        }
        if (entries != 1) {
            return false;
        }
    }
    return true;
}

void EndToEndTest::StartClients(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        StartClient(name);
    }
    WaitUntilRunning(names);
}

void EndToEndTest::WaitUntilRunning(const std::vector<std::string>& names) {
    ASSERT_TRUE(WaitFor([&] { return AllRunning(names); }, 20s, 50ms))
        << Send("clients").output << m_clients.back()->Output() << m_server->Output();
}

void EndToEndTest::WaitForRecords(long count) {
    auto records = [&] { return NumberAfter(Send("status").output, "records to the log "); };
    const long target = records() + count;
    ASSERT_TRUE(WaitFor([&] { return records() >= target; }, 20s, 50ms)) << Send("status").output;
}

void EndToEndTest::Record(double seconds) {
    ASSERT_EQ(Send("record " + std::to_string(seconds)).status, 0);
    const CommandResult waited = Send("wait");
    ASSERT_EQ(waited.status, 0) << waited.output << m_server->Output();
}

std::vector<ClientSummary> EndToEndTest::StopClients() {
    std::vector<ClientSummary> summaries;
    for (const std::unique_ptr<Process>& client : m_clients) {
        client->Signal(SIGTERM);
        client->Wait(10s);
        summaries.push_back(ParseClientSummary(client->Output()));
    }
    return summaries;
}

}  // namespace ReplayTest
