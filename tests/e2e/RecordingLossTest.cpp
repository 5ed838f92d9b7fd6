// Recording that loses nothing, with real processes on loopback.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "tests/ReplayManager/ServerTestSupport.h"
#include "support/DemoJournal.h"
#include "tests/support/EndToEnd.h"
#include "tests/support/UdpTestClient.h"

namespace ReplayTest {
namespace {

using namespace std::chrono_literals;
using ServerTest::DataRecord;
using ServerTest::StatusRecord;
using HandedItem = ReplaySupport::JournalItem;

constexpr int64_t kStampMarginMs = 50;

// Files "<n>_<client>_<time>.<ext>" of `replaylog extract --out-dir`.
std::map<std::string, std::multiset<std::string>> ReadExtractedItems(const std::string& directory) {
    std::map<std::string, std::multiset<std::string>> items;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        const size_t first = name.find('_');
        const size_t last = name.rfind('_');
        if (first != std::string::npos && last > first) {
            items[name.substr(first + 1, last - first - 1)].insert(ReadFile(entry.path().string()));
        }
    }
    return items;
}

int64_t NowMs() {
    return ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds;
}

class RecordingLossTest : public EndToEndTest {
  protected:
    std::unique_ptr<UdpTestClient> Register(const std::string& name, std::string first = "") {
        std::unique_ptr<UdpTestClient> client(new UdpTestClient(Address()));
        EXPECT_TRUE(
            client->Send(Address(), 4400, first.empty() ? StatusRecord(name, NowMs(), "") : first));
        EXPECT_FALSE(client->Receive().empty());  // its slot and state
        return client;
    }
    long Handled() { return NumberAfter(Send("status").output, "\ndatagrams "); }
    std::vector<std::string> LoggedData(const std::string& client = "") {
        std::vector<std::string> data;
        ReplayCore::ReplayLogReader reader;
        if (!reader.Open(LogPath())) {
            return data;
        }
        ReplayCore::LogRecord record;
        while (reader.Next(record)) {
            if (record.kind == ReplayCore::LogRecordKind::kClient && !record.payload.empty() &&
                record.payload[0] != '#' &&
                (client.empty() ||
                 record.payload.find(":" + client + ":!1 ") != std::string::npos)) {
                data.push_back(record.payload);
            }
        }
        return data;
    }
};

TEST_F(RecordingLossTest, StopKeepsEveryItemHandedOverBeforeIt) {
    // A 10 Hz client's block can leave it 4 s after its first item: only the
    // default hold keeps it ahead of the writer's limit for late records.
    StartServer(5000);
    StartClient("slow", {"--frame-hz", "0", "--position-hz", "10"});
    StartClient("fast", {"--frame-hz", "200", "--position-hz", "10"});
    ASSERT_NO_FATAL_FAILURE(WaitUntilRunning({"slow", "fast"}));
    ASSERT_EQ(Send("record").status, 0);
    std::this_thread::sleep_for(3s);
    const auto stopping = std::chrono::steady_clock::now();
    const CommandResult stopped = Send("stop");
    const auto took = std::chrono::steady_clock::now() - stopping;
    EXPECT_EQ(stopped.output, "recording stopped\n");
    // A block leaves a client within about 5 s; the stop's wait for it
    // gives up at 10 s, which the unconfirmed clients below catch.
    EXPECT_LT(took, 14s);
    const std::string status = Send("status").output;
    const long moment = NumberAfter(status, "last stop moment ");
    ASSERT_GT(moment, 0) << status;
    EXPECT_NE(status.find("unconfirmed clients 0"), std::string::npos) << status;
    StopClients();

    ASSERT_EQ(
        Run({"tools/replaylog/replaylog", "extract", LogPath(), "--out-dir", Root() + "/items"})
            .status,
        0);
    const auto logged = ReadExtractedItems(Root() + "/items");
    for (const std::string client : {"slow", "fast"}) {
        const auto found = logged.find(client);
        ASSERT_NE(found, logged.end()) << client;
        // The library stamps an item a moment after the journal's time; a
        // loaded machine can put milliseconds between the two.
        size_t before = 0;
        std::vector<HandedItem> missing;
        for (const HandedItem& item :
             ReplaySupport::ReadJournal(ClientJournal(client == "slow" ? 0 : 1))) {
            before += item.timeMs < moment ? 1 : 0;
            if (item.timeMs < moment - kStampMarginMs && found->second.count(item.bytes) == 0) {
                missing.push_back(item);
            }
        }
        EXPECT_GT(before, 20u) << client;
        EXPECT_TRUE(missing.empty()) << client << ": " << missing.size() << " of " << before
                                     << " items handed over before the stop are not in the log, "
                                        "the first at "
                                     << missing.front().timeMs << " (stop at " << moment << ")";
    }
}

TEST_F(RecordingLossTest, KilledServerRestartsAndWritesWhatItHadReceivedOnce) {
    StartServer(5000);
    std::unique_ptr<UdpTestClient> client = Register("crashy");
    ASSERT_EQ(Send("record").status, 0);
    std::vector<std::string> sent;
    const int64_t start = NowMs() - 3000;
    for (int k = 0; k < 60; ++k) {
        sent.push_back(DataRecord("crashy", start + 50 * k, static_cast<unsigned int>(k + 1)));
        ASSERT_TRUE(client->Send(Address(), 4400, sent.back()));
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_TRUE(WaitFor([&] { return Handled() >= 61; }, 10s, 20ms));
    std::this_thread::sleep_for(1200ms);
    m_server->Kill();

    const size_t loggedBeforeRestart = LoggedData().size();
    EXPECT_LT(loggedBeforeRestart, sent.size());

    StartServer(5000);
    const std::string status = Send("status").output;
    EXPECT_GE(NumberAfter(status, "records recovered at start "),
              static_cast<long>(sent.size() - loggedBeforeRestart))
        << status;
    EXPECT_EQ(LoggedData(), sent) << m_server->Output();
    EXPECT_NE(m_server->Output().find("recovered"), std::string::npos) << m_server->Output();
}

// Each row a raw client of its own.
TEST_F(RecordingLossTest, RawClientsRecordThroughOneServer) {
    constexpr int kClients = 24;
    std::map<std::string, std::unique_ptr<UdpTestClient>> clients;
    for (int k = 0; k < kClients; ++k) {
        const std::string name = "c" + std::to_string(k);
        clients[name] = Register(name, DataRecord(name, NowMs(), 0, "init"));
    }
    for (const char* name : {"burst", "big", "forger"}) {
        clients[name] = Register(name);
    }
    std::this_thread::sleep_for(1500ms);
    ASSERT_EQ(Send("record").status, 0);
    long sent = static_cast<long>(clients.size());
    auto send = [&](const std::string& name, const std::string& record) {
        sent += clients.at(name)->Send(Address(), 4400, record);
    };
    for (int k = 0; k < kClients; ++k) {
        const std::string name = "c" + std::to_string(k);
        send(name, DataRecord(name, NowMs(), 1, "item"));
    }
    std::vector<std::string> burst;
    const int64_t start = NowMs();
    for (unsigned int k = 0; k < 640; ++k) {
        burst.push_back(DataRecord("burst", start + k / 32, k + 1, std::string(1900, 'x')));
        send("burst", burst.back());
        if (k % 64 == 63) {
            std::this_thread::sleep_for(2ms);  // the socket's buffer is not the subject
        }
    }
    const size_t room = GetMaximumClientRecordSize() - DataRecord("big", start, 1, "").size();
    for (unsigned int extra = 1; extra <= 7; ++extra) {
        clients["big"]->Send(Address(), 4400,
                             DataRecord("big", start, extra, std::string(room + extra, 'y')));
    }
    const std::string fits = DataRecord("big", start, 8, std::string(room, 'x'));
    send("big", fits);
    const std::string forged[] = {DataRecord("forger", start, 1, "in time"),
                                  DataRecord("forger", start + 3600000, 2, "ahead"),
                                  DataRecord("forger", start + 500, 3, "in time again")};
    for (const std::string& record : forged) {
        send("forger", record);
    }
    ASSERT_TRUE(WaitFor([&] { return Handled() >= sent; }, 10s, 20ms)) << Send("status").output;
    for (const auto& client : clients) {
        client.second->Send(Address(), 4400, StatusRecord(client.first, NowMs() + 3000, ""));
    }
    EXPECT_EQ(Send("stop").output, "recording stopped\n");

    const std::string status = Send("status").output;
    ReplayCore::ReplayLogReader reader;
    ReplayCore::LogRecord first;
    ASSERT_TRUE(reader.Open(LogPath()) && reader.Next(first));
    EXPECT_EQ(first.kind, ReplayCore::LogRecordKind::kHeader) << "many clients: header not first";
    ExpectReadableLog();
    for (int k = 0; k < kClients; ++k) {  // block 0 and an item
        EXPECT_EQ(LoggedData("c" + std::to_string(k)).size(), 2u) << "many clients: c" << k;
    }
    EXPECT_TRUE(LoggedData("burst") == burst) << "burst: missing or out of sequence order";
    EXPECT_EQ(NumberAfter(status, "oversized datagrams "), 7) << status;
    EXPECT_EQ(LoggedData("big"), std::vector<std::string>{fits}) << "oversized";
    EXPECT_EQ(NumberAfter(status, "outside the time window "), 1) << status;
    EXPECT_EQ(LoggedData("forger"), (std::vector<std::string>{forged[0], forged[2]}));
}

}  // namespace
}  // namespace ReplayTest
