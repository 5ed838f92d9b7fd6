// Hostile network input, bounded in count and time and on loopback only:
// a recording client answered by a "server" that sends it absurd commands,
// and the replay server flooded from thousands of source ports while real
// clients record through it. What each parser makes of a datagram is the
// fuzz targets' business; these cases show that the running processes stay
// up and keep working, and that the server bounds its state and counts and
// reports what it refuses.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "libreplay/ReplayClient.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ClientRecord.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ClientSetup.h"
#include "tests/support/EndToEnd.h"
#include "tests/support/FakeServer.h"
#include "tests/support/RawRecordText.h"
#include "tests/support/UdpTestClient.h"
#include "tests/ReplayManager/ServerTestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::Datagram;
using ReplayTest::FakeServer;
using ReplayTest::NumberAfter;
using ReplayTest::WaitFor;
using ReplayTest::WithChecksum;
using ServerTest::StatusRecord;

constexpr uint32_t kSeed = 20240611;
constexpr size_t kLargestDatagram = 9000;

// Datagrams for the server, from a seed so that a failing run can be
// repeated: garbage, records cut short, cut by the socket or with a wrong
// checksum, invalid names, and valid records of clients "f<n>" with n below
// `names`, so the flood offers that many would-be clients.
class HostileMix {
  public:
    explicit HostileMix(uint32_t seed) : m_random(seed) {}

    std::string ForServer(unsigned int names) {
        const std::string name = "f" + std::to_string(Below(names));
        const std::string record = DataRecord(name);
        switch (Below(7)) {
            case 0:
                return RandomBytes(Below(2100));
            case 1: {
                // Cut by the socket to 2048 bytes, so the checksum is lost.
                const std::string oversized = DataRecord(name, kLargestDatagram);
                return oversized.substr(0, 2049 + Below(oversized.size() - 2049));
            }
            case 2:
                return record.substr(0, Below(record.size()));
            case 3:
                return WithChecksum(record.substr(0, record.size() - 9), true);
            case 4:
                return StatusRecord(Below(2) ? std::string(21, 'a') : "bad name", 1000000, "");
            case 5:
                return StatusRecord(name, 1000000, "");
            default:
                return record;
        }
    }

    // A data record of `name` with a valid checksum, random payload bytes
    // (line ends, NULs and item separators among them) and a time within the
    // last second of the clock real clients stamp their records with: the
    // log drops records that come after later ones, so this traffic stays
    // beside theirs.
    std::string DataRecord(const std::string& name, size_t padding = 0) {
        return ServerTest::DataRecord(
            name, ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds - Below(1000),
            static_cast<unsigned int>(1 + Below(50)),
            RandomBytes(Below(200)) + std::string(padding, 'x'));
    }

  private:
    std::string RandomBytes(size_t length) {
        std::string bytes(length, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(Below(256));
        }
        return bytes;
    }
    int64_t Below(size_t bound) {
        return static_cast<int64_t>(std::uniform_int_distribution<size_t>(0, bound - 1)(m_random));
    }

    std::mt19937 m_random;
};

// Sends `datagrams` to the server at `ip` round robin over `sourcePorts`
// distinct UDP sockets, opened and closed in groups so that few descriptors
// are held at once. Returns how many were sent whole.
size_t SendFromManyPorts(const std::string& ip, const std::vector<std::string>& datagrams,
                         size_t sourcePorts) {
    constexpr size_t kSocketsAtOnce = 200;
    size_t sent = 0;
    for (size_t first = 0; first < sourcePorts; first += kSocketsAtOnce) {
        std::vector<std::unique_ptr<ReplayTest::UdpTestClient>> sockets;
        while (sockets.size() < std::min(kSocketsAtOnce, sourcePorts - first)) {
            sockets.emplace_back(new ReplayTest::UdpTestClient());
        }
        for (size_t index = first; index < datagrams.size(); index += sourcePorts) {
            for (size_t i = 0; i < sockets.size() && index + i < datagrams.size(); ++i) {
                sent += sockets[i]->Send(ip, FakeServer::kReplayPort, datagrams[index + i]);
            }
        }
    }
    return sent;
}

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
    ReplayTest::ChildProcess application(RecordingApplication);
    server.Start();
    ASSERT_TRUE(server.WaitForDatagrams(1, 10s));
    const sockaddr_in client = server.Datagrams().front().sender;

    // What the parsers make of a datagram is fuzzed; here the running
    // client takes paths that would stall an options reader for good (a
    // FIFO nobody writes, a device without end), an empty datagram and
    // oversized commands.
    const std::string fifo = Root() + "/options.fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string hostile[] = {
        "#stop c=" + fifo + ";",
        "#stop c=/dev/zero;",
        "#record c=/;",
        "#record c=" + std::string(300, 'a') + ";",
        "",
        "#record " + std::string(1000, ';'),
        "#record " + std::string(kLargestDatagram, 's'),
    };
    for (const std::string& datagram : hostile) {
        server.SendTo(client, datagram);
    }

    // Valid commands must still be obeyed, after all of the above: first
    // stop (the blocks cease), then record (they come again). The client may
    // have dropped its connection (an empty datagram does that) and come
    // back on another port, so every report it sends is answered.
    size_t seen = 0;
    bool block = false;
    auto lastBlock = std::chrono::steady_clock::now();
    auto answerReports = [&](const std::string& command) {
        const std::vector<Datagram> received = server.Datagrams();
        for (; seen < received.size(); ++seen) {
            if (IsDataBlockOf(received[seen], kClientName)) {
                block = true;
                lastBlock = received[seen].arrival;
            } else {
                server.Reply(received[seen], command);
            }
        }
    };
    server.SendTo(server.Datagrams().back().sender, "#stop");
    EXPECT_TRUE(WaitFor(
        [&] {
            answerReports("#stop");
            return std::chrono::steady_clock::now() - lastBlock > 1500ms;
        },
        15s, 20ms))
        << "the client kept recording after stop";

    block = false;
    server.SendTo(server.Datagrams().back().sender, "#record s=0;");
    EXPECT_TRUE(WaitFor(
        [&] {
            answerReports("#record s=0;");
            return block;
        },
        15s, 20ms))
        << server.Count() << " datagrams from the client, no data block after record";

    ReplayTest::WriteFile("stop", "");
    EXPECT_EQ(application.Wait(10s), 0);
}

// The highest position number of `client` in a log dump, or -1.
long LatestPosition(const std::string& dump, const std::string& client) {
    const std::string key = ":" + client + ":!1 ";
    long latest = -1;
    for (size_t at = dump.find(key); at != std::string::npos; at = dump.find(key, at + 1)) {
        const size_t position = dump.find(":POS ", at + key.size());
        if (position != std::string::npos &&
            dump.find_first_not_of("0123456789", at + key.size()) == position) {
            latest = std::max(latest, std::strtol(dump.c_str() + position + 5, nullptr, 10));
        }
    }
    return latest;
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
constexpr size_t kFloodChunks = 10;
constexpr size_t kPortsPerChunk = 400;
constexpr unsigned int kFakeNames = 3000;
constexpr size_t kClientLimit = 64;
// Every refused name is reported once, up to this many; then once that the
// rest are only counted.
constexpr size_t kNamedRefusals = 1024;
constexpr size_t kFloodDatagrams = ReplayTest::kSanitizerBuild ? 30000 : 100000;

class HostileServerTest : public ReplayTest::EndToEndTest {
  protected:
    long Handled() { return NumberAfter(Send("status").output, "\ndatagrams "); }
};

// Whatever the server keeps per datagram, per source port or per made-up
// name must stop growing once its bounds are reached, while the real
// clients go on recording through it.
TEST_F(HostileServerTest, FloodFromThousandsOfPortsLeavesRealClientsRecordingAndStateBounded) {
    const std::vector<std::string> real = {"gps", "can"};
    ASSERT_NO_FATAL_FAILURE(StartClients(real));
    ASSERT_EQ(Send("record").status, 0);
    const auto recordingStarted = std::chrono::steady_clock::now();

    HostileMix mix(kSeed);
    // First a burst of well-formed records under names the server accepts,
    // faster than the log writer takes them: the writer's pipe fills up.
    std::vector<std::string> burst;
    for (size_t i = 0; i < kBurstNames; ++i) {
        burst.push_back(StatusRecord("burst" + std::to_string(i), 1000000, ""));
    }
    SendFromManyPorts(Address(), burst, burst.size());
    burst.clear();
    for (size_t i = 0; i < kBurstRecords; ++i) {
        burst.push_back(mix.DataRecord("burst" + std::to_string(i % kBurstNames)));
    }
    SendFromManyPorts(Address(), burst, kPortsPerChunk);
    ASSERT_TRUE(
        WaitFor([&] { return Handled() >= static_cast<long>(kBurstRecords * 9 / 10); }, 20s, 50ms))
        << "the server no longer takes datagrams";
    // Measured once recording and the log are under way, so that what the
    // flood below adds stands out; again after each tenth of the flood.
    const long residentBefore = ReplaySupport::ProcessStatusNumber(m_server->Pid(), "VmRSS");
    std::vector<long> resident;
    size_t sent = 0;
    for (size_t chunk = 0; chunk < kFloodChunks; ++chunk) {
        std::vector<std::string> datagrams;
        for (size_t i = 0; i < kFloodDatagrams / kFloodChunks; ++i) {
            datagrams.push_back(mix.ForServer(kFakeNames));
        }
        const long handledBefore = Handled();
        sent += SendFromManyPorts(Address(), datagrams, kPortsPerChunk);
        // Keep the backlog within the socket's buffer, so that the flood is
        // taken in whole, whatever the build's speed.
        WaitFor(
            [&] {
                return Handled() >= handledBefore + static_cast<long>(datagrams.size() * 9 / 10);
            },
            20s, 50ms);
        resident.push_back(ReplaySupport::ProcessStatusNumber(m_server->Pid(), "VmRSS"));
    }
    EXPECT_EQ(sent, kFloodDatagrams);
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
    EXPECT_TRUE(AllRunning(real)) << table;

    // Each refused name is reported once, and only so many are named.
    const std::map<std::string, int> refusals = RefusalsByName(m_server->Output());
    EXPECT_FALSE(refusals.empty());
    EXPECT_LE(refusals.size(), kNamedRefusals);
    for (const auto& refusal : refusals) {
        EXPECT_EQ(refusal.second, 1) << refusal.first;
    }
    EXPECT_EQ(ReplayTest::Occurrences(m_server->Output(), "further refusals are only counted"), 1);

    std::string curve = "resident kB after each tenth: ";
    for (long kilobytes : resident) {
        curve += std::to_string(kilobytes) + " ";
    }
    // Over the second half every bound has long been reached: allow only
    // the allocator's noise.
    if (!ReplayTest::kSanitizerBuild) {
        EXPECT_LT(resident.back() - residentBefore, 16 * 1024) << residentBefore << " kB before";
        EXPECT_LT(resident.back() - resident[kFloodChunks / 2 - 1], 512) << curve;
    }

    // The real clients were recorded all along, into a log that verifies.
    const std::string dump = Dump();
    for (const std::string& name : real) {
        EXPECT_GE(LatestPosition(dump, name), 10) << name;
    }
    ExpectReadableLog(false);
    for (const ReplayTest::ClientSummary& summary : StopClients()) {
        EXPECT_TRUE(summary.found);
        EXPECT_GT(summary.recorded, 0u);
    }
}

}  // namespace
