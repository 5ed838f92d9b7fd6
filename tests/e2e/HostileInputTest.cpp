// Hostile network input on loopback: the running processes stay up, the
// server bounds its state and reports what it refuses (parsers are fuzzed).

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

// From a seed, so that a failing run can be repeated.
class HostileMix {
  public:
    explicit HostileMix(uint32_t seed) : m_random(seed) {}

    std::string ForServer(unsigned int names) {
        const std::string name = "f" + std::to_string(Below(names));
        const std::string record = DataRecord(name);
        switch (Below(5)) {
            case 0:
                return RandomBytes(Below(2100));
            case 1:
                return WithChecksum(record.substr(0, record.size() - 9), true);
            case 2:
                return StatusRecord(Below(2) ? std::string(21, 'a') : "bad name", 1000000, "");
            case 3:
                return StatusRecord(name, 1000000, "");
            default:
                return record;
        }
    }

  private:
    // Random payload bytes, timed within the last second of the real
    // clients' clock: the log drops records that come after later ones.
    std::string DataRecord(const std::string& name) {
        return ServerTest::DataRecord(
            name, ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds - Below(1000),
            static_cast<unsigned int>(1 + Below(50)), RandomBytes(Below(200)));
    }
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

int RecordingApplication() {
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

    // Option paths that would stall an options reader for good (a FIFO
    // nobody writes, a device without end), empty and oversized commands.
    const std::string fifo = Root() + "/options.fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& datagram :
         {"#stop c=" + fifo + ";", std::string("#stop c=/dev/zero;"), std::string("#record c=/;"),
          "#record c=" + std::string(300, 'a') + ";", std::string(),
          "#record " + std::string(1000, ';'), "#record " + std::string(9000, 's')}) {
        server.SendTo(server.Datagrams().front().sender, datagram);
    }

    // Only a read thread past the stops records. Every report is answered: the
    // empty datagram makes the client reconnect from another port.
    size_t seen = 0;
    bool block = false;
    EXPECT_TRUE(WaitFor(
        [&] {
            const std::vector<Datagram> received = server.Datagrams();
            for (; seen < received.size(); ++seen) {
                block = block || IsDataBlockOf(received[seen], kClientName);
                server.Reply(received[seen], "#record s=0;");
            }
            return block;
        },
        15s, 20ms))
        << server.Count() << " datagrams from the client, no data block after record";

    ReplayTest::WriteFile("stop", "");
    EXPECT_EQ(application.Wait(10s), 0);
}

std::map<std::string, int> RefusalsByName(const std::string& output) {
    std::map<std::string, int> refusals;
    const std::string key = "refusing client ";
    for (size_t at = output.find(key); at != std::string::npos; at = output.find(key, at + 1)) {
        const size_t start = at + key.size();
        ++refusals[output.substr(start, output.find(' ', start) - start)];
    }
    return refusals;
}

constexpr size_t kFloodChunks = 10;
constexpr size_t kPortsPerChunk = 400;
constexpr unsigned int kFakeNames = 3000;
constexpr size_t kClientLimit = 64;
constexpr size_t kNamedRefusals = 1024;
constexpr size_t kFloodDatagrams = ReplayTest::kSanitizerBuild ? 30000 : 100000;

class HostileServerTest : public ReplayTest::EndToEndTest {
  protected:
    long Handled() { return NumberAfter(Send("status").output, "\ndatagrams "); }
};

TEST_F(HostileServerTest, FloodFromThousandsOfPortsLeavesRealClientsRecordingAndStateBounded) {
    const std::vector<std::string> real = {"gps", "can"};
    ASSERT_NO_FATAL_FAILURE(StartClients(real));
    ASSERT_EQ(Send("record").status, 0);
    const auto recordingStarted = std::chrono::steady_clock::now();

    HostileMix mix(kSeed);
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
        // The backlog stays within the socket's buffer, so that the flood is
        // taken in whole, whatever the build's speed.
        WaitFor(
            [&] {
                return Handled() >= handledBefore + static_cast<long>(datagrams.size() * 9 / 10);
            },
            20s, 50ms);
        resident.push_back(ReplaySupport::ProcessStatusNumber(m_server->Pid(), "VmRSS"));
    }
    EXPECT_EQ(sent, kFloodDatagrams);
    // At least three seconds of recording, however fast the flood went.
    std::this_thread::sleep_until(recordingStarted + std::chrono::seconds(3));
    ASSERT_EQ(Send("stop").status, 0);
    EXPECT_EQ(Send("wait").status, 0);

    ASSERT_TRUE(m_server->Running()) << m_server->Output();
    const std::string table = Send("clients").output;
    EXPECT_LE(static_cast<size_t>(std::count(table.begin(), table.end(), '\n')), kClientLimit + 1)
        << table;
    EXPECT_TRUE(AllRunning(real)) << table;

    const std::map<std::string, int> refusals = RefusalsByName(m_server->Output());
    EXPECT_FALSE(refusals.empty());
    EXPECT_LE(refusals.size(), kNamedRefusals);
    for (const auto& refusal : refusals) {
        EXPECT_EQ(refusal.second, 1) << refusal.first;
    }
    EXPECT_EQ(ReplayTest::Occurrences(m_server->Output(), "further refusals are only counted"), 1);

    // Past the first half every bound is reached: allocator noise only.
    if (!ReplayTest::kSanitizerBuild) {
        EXPECT_LT(resident.back() - residentBefore, 16 * 1024) << residentBefore << " kB before";
        EXPECT_LT(resident.back() - resident[kFloodChunks / 2 - 1], 512)
            << resident[kFloodChunks / 2 - 1] << " kB at half, " << resident.back() << " at end";
    }

    const std::string dump = Dump();
    for (const std::string& name : real) {
        EXPECT_GE(ReplayTest::Occurrences(dump, ":" + name + ":!1 "), 10) << name;
    }
    ExpectReadableLog(false);
    for (const ReplayTest::ClientSummary& summary : StopClients()) {
        EXPECT_TRUE(summary.found);
        EXPECT_GT(summary.recorded, 0u);
    }
}

}  // namespace
