// Hostile network input, bounded in count and time and on loopback only:
// a recording client answered by a "server" that sends garbage and absurd
// commands, and the replay server flooded from thousands of source ports
// while real clients record through it.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/ReplayClient.h"
#include "libreplay/ReplayCore.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ClientSetup.h"
#include "tests/support/EndToEnd.h"
#include "tests/support/FakeServer.h"
#include "tests/support/HostileTraffic.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::ChildProcess;
using ReplayTest::Datagram;
using ReplayTest::FakeServer;
using ReplayTest::HostileMix;
using ReplayTest::WaitFor;

constexpr uint32_t kSeed = 20240611;
constexpr int kClientDatagrams = 3000;
const char kClientName[] = "victim";

int IgnoreReplay(void*, unsigned int, unsigned int) {
    return 1;
}

// The client application: records an item every few milliseconds until the
// file "stop" appears in its working directory. 0 when it ends unharmed.
int RecordingApplication() {
    // The library's notices would drown the test's own output.
    std::freopen("client.out", "w", stdout);
    std::freopen("client.out", "a", stderr);
    if (ReplayClient::InitializeReplayClient(kClientName, IgnoreReplay, nullptr,
                                             kDataTypeAsciiText) != 1) {
        return 3;
    }
    for (unsigned int n = 0; access("stop", F_OK) != 0; ++n) {
        const std::string item = "item " + std::to_string(n);
        ReplayClient::SendClientData(item.data(), static_cast<unsigned int>(item.size()), false,
                                     kDataTypeAsciiText);
        // The pace of a data source, not a wait for anything.
        std::this_thread::sleep_for(5ms);
    }
    return ReplayClient::GetReplayState() == ReplayCore::eStateShutDown ? 4 : 0;
}

bool IsDataBlockOf(const Datagram& datagram, const std::string& name) {
    return !datagram.bytes.empty() && datagram.bytes[0] == '"' &&
           datagram.bytes.find(":" + name + ":!1 ") != std::string::npos &&
           ReplayCore::CheckSumValid(datagram.bytes.data(),
                                     static_cast<unsigned int>(datagram.bytes.size()));
}

class HostileInputTest : public ReplayTest::TargetRootTest {};

TEST_F(HostileInputTest, RecordingClientSurvivesAHostileServerAndStillObeysRecord) {
    FakeServer server(false);
    ASSERT_TRUE(server.IsBound());
    ReplayTest::PrepareReplayClient(server.Address());
    ChildProcess application(RecordingApplication);
    server.Start();
    ASSERT_TRUE(server.WaitForDatagrams(1, 10s));
    const sockaddr_in client = server.Datagrams().front().sender;

    // Paths that would stall an options reader for good: a FIFO nobody
    // writes, and a device without end.
    const std::string fifo = Root() + "/options.fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::vector<std::string> hostile = {
        "#stop c=" + fifo + ";",
        "#stop c=/dev/zero;",
        "",
        "#record s=4294967296;t=99999999999.999;l=-2147483648.-999;D=-1;",
        "#replay l=2147483647.999;",
        "#record " + std::string(1000, ';'),
        "#record s=1",
        "#replay x;y;z=;=;==;",
    };
    HostileMix mix(kSeed);
    while (hostile.size() < kClientDatagrams) {
        hostile.push_back(mix.ForClient());
    }
    for (const std::string& datagram : hostile) {
        server.SendTo(client, datagram);
    }

    // Valid commands must still be obeyed, after all of the above: first
    // stop (the blocks cease), then record (they come again). The client may
    // have dropped its connection (an empty datagram does that) and come
    // back on another port, so every report it sends is answered.
    size_t seen = 0;
    auto answerReports = [&](const std::string& command, bool& dataBlock,
                             std::chrono::steady_clock::time_point& lastBlock) {
        const std::vector<Datagram> received = server.Datagrams();
        for (; seen < received.size(); ++seen) {
            if (IsDataBlockOf(received[seen], kClientName)) {
                dataBlock = true;
                lastBlock = received[seen].arrival;
            } else {
                server.Reply(received[seen], command);
            }
        }
    };
    const sockaddr_in latest = server.Datagrams().back().sender;
    server.SendTo(latest, "#stop");
    bool block = false;
    auto lastBlock = std::chrono::steady_clock::now();
    EXPECT_TRUE(WaitFor(
        [&] {
            answerReports("#stop", block, lastBlock);
            return std::chrono::steady_clock::now() - lastBlock > 1500ms;
        },
        15s, 20ms))
        << "the client kept recording after stop";

    block = false;
    server.SendTo(server.Datagrams().back().sender, "#record s=0;");
    EXPECT_TRUE(WaitFor(
        [&] {
            answerReports("#record s=0;", block, lastBlock);
            return block;
        },
        15s, 20ms))
        << server.Count() << " datagrams from the client, no data block after record";

    ReplayTest::WriteFile("stop", "");
    EXPECT_EQ(application.Wait(10s), 0);
}

// The count of datagrams the server has handled, from its status.
uint64_t DatagramsHandled(const std::string& status) {
    const size_t at = status.find("datagrams ");
    unsigned long long count = 0;
    if (at != std::string::npos) {
        std::sscanf(status.c_str() + at, "datagrams %llu", &count);
    }
    return count;
}

// Refusal lines of the server's output, per client name.
std::map<std::string, int> RefusalsByName(const std::string& output) {
    std::map<std::string, int> refusals;
    const std::string key = "refusing client ";
    for (size_t at = output.find(key); at != std::string::npos; at = output.find(key, at + 1)) {
        const size_t start = at + key.size();
        ++refusals[output.substr(start, output.find(' ', start) - start)];
    }
    return refusals;
}

constexpr size_t kBurstNames = 10;
constexpr size_t kBurstRecords = 5000;
constexpr size_t kServerDatagrams = 20000;
constexpr size_t kFloodChunks = 10;
constexpr size_t kPortsPerChunk = 400;
constexpr unsigned int kFakeNames = 3000;
constexpr size_t kClientLimit = 64;
// Every refused name is reported once, up to this many; then once that the
// rest are only counted.
constexpr size_t kNamedRefusals = 1024;

class HostileServerTest : public ReplayTest::EndToEndTest {};

TEST_F(HostileServerTest, FloodFromThousandsOfPortsLeavesRealClientsRecordingAndStateBounded) {
    const std::vector<std::string> real = {"gps", "can"};
    StartClients(real);
    if (HasFatalFailure()) {
        return;
    }
    ASSERT_EQ(Send("record 20").status, 0);
    const auto recordingStarted = std::chrono::steady_clock::now();

    HostileMix mix(kSeed);
    const sockaddr_in server = ReplayTest::LoopbackAddress(Address(), FakeServer::kReplayPort);
    // First a burst of well-formed records under names the server accepts,
    // faster than the log writer takes them: the writer's pipe fills up.
    std::vector<std::string> burst;
    for (size_t i = 0; i < kBurstNames; ++i) {
        burst.push_back(HostileMix::ConnectRecord("burst" + std::to_string(i)));
    }
    ReplayTest::SendFromManyPorts(server, burst, burst.size());
    burst.clear();
    for (size_t i = 0; i < kBurstRecords; ++i) {
        burst.push_back(mix.DataRecord("burst" + std::to_string(i % kBurstNames)));
    }
    ReplayTest::SendFromManyPorts(server, burst, kPortsPerChunk);
    ASSERT_TRUE(
        WaitFor([&] { return DatagramsHandled(Send("status").output) >= kBurstRecords * 9 / 10; },
                20s, 50ms))
        << "the server no longer takes datagrams";
    // Measured once recording and the log are under way, so that what the
    // flood below adds stands out.
    const long residentBefore = ReplaySupport::ProcessStatusNumber(m_server->Pid(), "VmRSS");

    size_t sent = 0;
    for (size_t chunk = 0; chunk < kFloodChunks; ++chunk) {
        std::vector<std::string> datagrams;
        for (size_t i = 0; i < kServerDatagrams / kFloodChunks; ++i) {
            datagrams.push_back(mix.ForServer(kFakeNames));
        }
        const uint64_t handledBefore = DatagramsHandled(Send("status").output);
        sent += ReplayTest::SendFromManyPorts(server, datagrams, kPortsPerChunk);
        // Keep the backlog within the socket's buffer, so that the flood is
        // taken in whole, whatever the build's speed.
        WaitFor(
            [&] {
                return DatagramsHandled(Send("status").output) >=
                       handledBefore + datagrams.size() * 9 / 10;
            },
            10s, 50ms);
    }
    EXPECT_EQ(sent, kServerDatagrams);
    // However fast the flood went, the real clients record for at least
    // three seconds (30 positions each) before the stop.
    std::this_thread::sleep_until(recordingStarted + std::chrono::seconds(3));
    ASSERT_EQ(Send("stop").status, 0);
    EXPECT_EQ(Send("wait").status, 0);

    // The server lives, its table holds at most the cap, the real clients
    // among them still running.
    ASSERT_TRUE(m_server->Running()) << m_server->Output();
    const std::string table = Send("clients").output;
    EXPECT_LE(static_cast<size_t>(std::count(table.begin(), table.end(), '\n')), kClientLimit + 1)
        << table;
    for (const std::string& name : real) {
        EXPECT_EQ(ClientEntries(name), 1) << table;
    }

    // Each refused name is reported once, and only so many are named.
    const std::map<std::string, int> refusals = RefusalsByName(m_server->Output());
    EXPECT_FALSE(refusals.empty());
    EXPECT_LE(refusals.size(), kNamedRefusals);
    for (const auto& refusal : refusals) {
        EXPECT_EQ(refusal.second, 1) << refusal.first;
    }
    EXPECT_EQ(ReplayTest::Occurrences(m_server->Output(), "further refusals are only counted"), 1);

    // Sanitizer builds keep shadow memory and allocation history of their
    // own, so only the plain build's resident size says anything.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const long residentAfter = ReplaySupport::ProcessStatusNumber(m_server->Pid(), "VmRSS");
    EXPECT_LT(residentAfter - residentBefore, 16 * 1024)
        << residentBefore << " kB before, " << residentAfter << " kB after, "
        << ReplaySupport::ProcessStatusNumber(m_server->Pid(), "Threads") << " threads";
#else
    (void)residentBefore;
#endif

    // The real clients were recorded all along, into a log that verifies.
    const std::string dump = Dump();
    for (const std::string& name : real) {
        EXPECT_GE(ReplayTest::LatestPosition(dump, name), 10) << name;
    }
    ExpectReadableLog(false);
    for (const ReplayTest::ClientSummary& summary : StopClients()) {
        EXPECT_TRUE(summary.found);
        EXPECT_GT(summary.recorded, 0u);
    }
}

// A long flood with nobody recording: whatever the server keeps per datagram,
// per source port or per made-up name must stop growing once its bounds are
// reached. The resident size is sampled after each tenth of the flood.
TEST_F(HostileServerTest, LongFloodLeavesTheServersMemoryFlat) {
    HostileMix mix(kSeed + 1);
    const sockaddr_in server = ReplayTest::LoopbackAddress(Address(), FakeServer::kReplayPort);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    constexpr size_t kLongFlood = 100000;
#else
    // Slower by far, and their resident size says nothing: a shorter flood.
    constexpr size_t kLongFlood = 30000;
#endif
    ASSERT_EQ(Send("record").status, 0);
    std::vector<long> resident;
    for (size_t chunk = 0; chunk < kFloodChunks; ++chunk) {
        std::vector<std::string> datagrams;
        for (size_t i = 0; i < kLongFlood / kFloodChunks; ++i) {
            datagrams.push_back(mix.ForServer(kFakeNames));
        }
        const uint64_t handledBefore = DatagramsHandled(Send("status").output);
        ReplayTest::SendFromManyPorts(server, datagrams, kPortsPerChunk);
        WaitFor(
            [&] {
                return DatagramsHandled(Send("status").output) >=
                       handledBefore + datagrams.size() * 9 / 10;
            },
            20s, 50ms);
        resident.push_back(ReplaySupport::ProcessStatusNumber(m_server->Pid(), "VmRSS"));
    }
    ASSERT_TRUE(m_server->Running()) << m_server->Output();
    std::ostringstream curve;
    for (long kilobytes : resident) {
        curve << kilobytes << " ";
    }
    std::printf("resident kB after each tenth: %s\n", curve.str().c_str());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // Over the second half every bound has long been reached: allow only
    // the allocator's noise.
    EXPECT_LT(resident.back() - resident[kFloodChunks / 2 - 1], 512) << curve.str();
#endif
}

// A record stamped an hour ahead of its client's clock would stretch the
// log by an hour and make a replay wait for it: it is refused and counted,
// while the same client's records around it are kept.
TEST_F(HostileServerTest, RecordFarFromItsClientsClockIsRefusedAndCounted) {
    ASSERT_EQ(Send("record").status, 0);
    const sockaddr_in server = ReplayTest::LoopbackAddress(Address(), FakeServer::kReplayPort);
    auto data = [](const std::string& time, int sequence, const std::string& item) {
        return ReplayTest::WithChecksum("\"" + time + ":forger:!1 " + std::to_string(sequence) +
                                        ":" + item);
    };
    const std::vector<std::string> records = {
        HostileMix::ConnectRecord("forger"), data("1000.000", 1, "in time"),
        data("4600.000", 2, "an hour ahead"), data("1000.500", 3, "in time again")};
    ASSERT_EQ(ReplayTest::SendFromManyPorts(server, records, 1), records.size());
    std::string status;
    EXPECT_TRUE(WaitFor(
        [&] {
            status = Send("status").output;
            return status.find("outside the time window 1,") != std::string::npos;
        },
        10s, 50ms))
        << status;
    ASSERT_EQ(Send("stop").status, 0);
    EXPECT_EQ(Send("wait").status, 0);
    const std::string dump = Dump();
    EXPECT_EQ(ReplayTest::Occurrences(dump, "in time again"), 1) << dump;
    EXPECT_EQ(ReplayTest::Occurrences(dump, "an hour ahead"), 0) << dump;
}

}  // namespace
