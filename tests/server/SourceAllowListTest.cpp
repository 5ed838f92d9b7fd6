#include "server/SourceAllowList.h"

#include <arpa/inet.h>

#include "server/ServerControl.h"
#include "tests/server/LoopbackServer.h"

namespace {

namespace srv = ReplayServer;
using ReplayTest::UdpTestClient;
using ServerTest::DataRecord;
using ServerTest::StatusRecord;

bool Allows(const srv::SourceAllowList& list, const char* address) {
    in_addr value;
    EXPECT_EQ(inet_pton(AF_INET, address, &value), 1) << address;
    return list.Allows(value);
}

TEST(SourceAllowListTest, MatchesAddressesByPrefix) {
    srv::SourceAllowList list;
    EXPECT_TRUE(list.AllowsAny());
    EXPECT_TRUE(Allows(list, "203.0.113.9"));

    ASSERT_TRUE(list.Parse("127.0.0.0/8, 10.1.0.0/16,192.168.1.7,10.9.9.9/32").IsOk());
    EXPECT_FALSE(list.AllowsAny());
    const std::pair<const char*, bool> probes[] = {{"127.255.1.1", true},   {"10.1.0.0", true},
                                                   {"10.1.255.255", true},  {"10.2.0.1", false},
                                                   {"10.0.255.255", false}, {"192.168.1.7", true},
                                                   {"192.168.1.8", false},  {"128.0.0.1", false},
                                                   {"10.9.9.9", true},      {"10.9.9.8", false}};
    for (const auto& probe : probes) {
        EXPECT_EQ(Allows(list, probe.first), probe.second) << probe.first;
    }
    EXPECT_EQ(list.ToString(), "127.0.0.0/8,10.1.0.0/16,192.168.1.7/32,10.9.9.9/32");

    // Prefix 0 takes everything (a 32-bit shift by 32 would not).
    ASSERT_TRUE(list.Parse("0.0.0.0/0").IsOk());
    EXPECT_TRUE(Allows(list, "255.255.255.255"));
    ASSERT_TRUE(list.Parse("172.16.0.0/12").IsOk());
    EXPECT_TRUE(Allows(list, "172.31.255.255"));
    EXPECT_FALSE(Allows(list, "172.32.0.0"));
}

TEST(SourceAllowListTest, RejectsBadNetworksAndKeepsTheList) {
    srv::SourceAllowList list;
    ASSERT_TRUE(list.Parse("10.0.0.0/8").IsOk());
    for (const char* bad : {"", ",", "10.0.0.0/8,", ",10.0.0.0/8", "10.1.2.3/16", "1.2.3.4/33",
                            "1.2.3.4/", "1.2.3.4/-1", "1.2.3.4/+8", "1.2.3.4/008", "1.2.3/8",
                            "1.2.3.4.5", "::1", "localhost", "1.2.3.4/8/8", "256.0.0.0/8"}) {
        const ReplayPlatform::Status parsed = list.Parse(bad);
        EXPECT_FALSE(parsed.IsOk()) << bad;
        EXPECT_FALSE(parsed.Message().empty()) << bad;
        EXPECT_EQ(list.ToString(), "10.0.0.0/8") << bad;
    }
}

using SourceRefusalTest = ServerTest::LoopbackServerTest;

TEST_F(SourceRefusalTest, DatagramsFromOutsideTheListNeverReachTheClientTable) {
    srv::ServerSettings settings;
    ASSERT_TRUE(settings.allowedSources.Parse("127.0.0.0/9").IsOk());
    StartServer(settings);
    const auto deadline = std::chrono::seconds(10);

    UdpTestClient outsider("127.200.5.5", 0);
    ASSERT_TRUE(outsider.Bound());
    outsider.Send(m_ip, 4400, StatusRecord("spy", 1000, ""));
    ASSERT_TRUE(
        ReplayTest::WaitFor([&] { return m_server->Counters().refusedSources == 1; }, deadline));
    EXPECT_TRUE(m_server->Clients().empty());
    EXPECT_EQ(m_server->Counters().datagrams, 0u);

    UdpTestClient client("127.5.5.5", 0);
    ASSERT_TRUE(client.Bound());
    client.Send(m_ip, 4400, StatusRecord("gps", 1000, ""));
    EXPECT_EQ(client.Receive(), "#stop s=0;");

    // Clients are told apart by port: a refused source must not pass as one.
    UdpTestClient impostor("127.200.5.6", client.Port());
    ASSERT_TRUE(impostor.Bound());
    impostor.Send(m_ip, 4400, DataRecord("gps", 1100, 1));
    ASSERT_TRUE(
        ReplayTest::WaitFor([&] { return m_server->Counters().refusedSources == 2; }, deadline));
    const std::vector<ClientData> table = m_server->Clients();
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].GetClientName(), "gps");
    EXPECT_EQ(table[0].GetMessagesReceived(), 1u);
    EXPECT_EQ(m_server->Counters().recordsForwarded, 0u);

    srv::ServerControl control(*m_server, srv::ReplaySettings(), [](const std::string&) {});
    EXPECT_NE(control.StatusText().find("refused sources 2"), std::string::npos);
}

}  // namespace
