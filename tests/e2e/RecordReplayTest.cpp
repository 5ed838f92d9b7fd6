// Record-then-replay through the real processes: the logger service, the
// replay server and demo clients, each case under a private target root and
// on a loopback address of its own.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/EndToEnd.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::ClientSummary;
using ReplayTest::CommandResult;
using ReplayTest::kLastBlockItems;
using ReplayTest::LatestPosition;
using ReplayTest::Occurrences;
using ReplayTest::WaitFor;

class RecordReplayTest : public ReplayTest::EndToEndTest {};

TEST_F(RecordReplayTest, RecordedItemsReplayIdenticallyToEveryClient) {
    const std::vector<std::string> names = {"gps", "can"};
    ASSERT_NO_FATAL_FAILURE(StartClients(names));

    Record(3);
    ASSERT_TRUE(std::filesystem::exists(LogPath()));

    const CommandResult replay = Send("replay " + LogPath());
    ASSERT_EQ(replay.status, 0) << replay.output;
    EXPECT_EQ(replay.output.find("skipped"), std::string::npos) << replay.output;
    const CommandResult waited = Send("wait");
    EXPECT_EQ(waited.status, 0) << waited.output << m_server->Output();

    for (size_t i = 0; i < m_clients.size(); ++i) {
        // Replayed items reach the client before the server reports the
        // job done, except what is still in flight.
        m_clients[i]->Signal(SIGTERM);
        EXPECT_EQ(m_clients[i]->Wait(10s), 0) << m_clients[i]->Output();
        const ClientSummary summary = ReplayTest::ParseClientSummary(m_clients[i]->Output());
        ASSERT_TRUE(summary.found) << names[i] << ": " << m_clients[i]->Output();
        EXPECT_TRUE(summary.identical) << m_clients[i]->Output();
        EXPECT_GT(summary.recorded, 0u);
        EXPECT_LE(summary.replayed, summary.recorded) << m_clients[i]->Output();
        EXPECT_LE(summary.recorded - summary.replayed, kLastBlockItems) << m_clients[i]->Output();
    }

    ExpectLogIntact();
}

TEST_F(RecordReplayTest, ClientRestartedWhileRecordingReplacesItsEntry) {
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record 4").status, 0);
    // Let the first run reach the log before it is killed.
    ASSERT_TRUE(WaitFor([&] { return Occurrences(Dump(), ":gps:!1 ") >= 2; }, 10s, 100ms));
    m_clients[0]->Kill();
    StartClient("gps");
    ASSERT_EQ(Send("wait").status, 0) << m_server->Output();

    // The new process took over the name: one entry, running.
    const std::string table = Send("clients").output;
    EXPECT_EQ(ClientEntries("gps", false), 1) << table;
    EXPECT_EQ(ClientEntries("gps"), 1) << table;

    const std::string dump = Dump();
    // Each run of the demo client starts with its initialisation record.
    EXPECT_EQ(Occurrences(dump, ":INIT:gps"), 2) << dump;
    // The other client went on undisturbed and the log reads whole: the
    // killed run lost only its unsent last block.
    EXPECT_TRUE(m_clients[1]->Running()) << m_clients[1]->Output();
    ExpectLogIntact();
}

TEST_F(RecordReplayTest, ClientsReconnectToRestartedServerAndRecordingGoesOn) {
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record 10").status, 0);
    ASSERT_TRUE(WaitFor([&] { return LatestPosition(Dump(), "gps") >= 2; }, 10s, 100ms));
    const std::string writtenBeforeKill = ReplayTest::ReadFile(LogPath());
    m_server->Kill();
    const long beforeRestart = LatestPosition(Dump(), "gps");
    // What the service wrote stays as it was, and what it stores of the
    // channel after the kill is whole records: the server writes each record
    // at once, so a kill cannot tear one.
    ExpectReadableLog(false);

    StartServer();
    ASSERT_TRUE(WaitFor(
        [&] {
            return AllRunning({"gps", "can"});
        },
        10s, 50ms))
        << Send("clients").output << m_server->Output();
    Record(2);
    const std::string dump = Dump();
    EXPECT_GT(LatestPosition(dump, "gps"), beforeRestart) << dump;
    EXPECT_GE(LatestPosition(dump, "can"), 0) << dump;
    EXPECT_EQ(
        ReplayTest::ReadFile(LogPath()).compare(0, writtenBeforeKill.size(), writtenBeforeKill), 0);
    ExpectReadableLog(false);
}

TEST_F(RecordReplayTest, DamagedRecordIsSkippedAndTheRestReplays) {
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    Record(3);

    // Flip one byte inside a position record about halfway through a copy.
    std::string log = ReplayTest::ReadFile(LogPath());
    const size_t record = log.find(":gps:!1 ", log.size() / 2);
    ASSERT_NE(record, std::string::npos);
    const size_t latitude = log.find("lat=", record);
    ASSERT_NE(latitude, std::string::npos);
    log[latitude + 1] = 'b';
    const std::string damaged = Root() + "/damaged.dat";
    ReplayTest::WriteFile(damaged, log);

    // The recording verifies, its damaged copy does not.
    ExpectLogIntact();
    const CommandResult verify = Verify(damaged);
    EXPECT_EQ(verify.status, 1) << verify.output;
    EXPECT_NE(verify.output.find(" 1 checksum failures"), std::string::npos) << verify.output;

    const CommandResult replay = Send("replay " + damaged);
    ASSERT_EQ(replay.status, 0) << replay.output;
    EXPECT_NE(replay.output.find("skipped damaged record at"), std::string::npos) << replay.output;
    EXPECT_EQ(Send("wait").status, 0) << m_server->Output();

    const std::vector<ClientSummary> summaries = StopClients();
    for (size_t i = 0; i < summaries.size(); ++i) {
        ASSERT_TRUE(summaries[i].found) << m_clients[i]->Output();
        // Everything but the damaged record and the unsent last block.
        EXPECT_GT(summaries[i].replayed, 0u) << m_clients[i]->Output();
        EXPECT_LE(summaries[i].recorded - std::min(summaries[i].recorded, summaries[i].replayed),
                  kLastBlockItems + 1)
            << m_clients[i]->Output();
    }
}

}  // namespace
