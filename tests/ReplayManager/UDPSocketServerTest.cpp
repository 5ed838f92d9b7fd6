#include "libreplay/server/UDPSocketServer.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"
#include "tests/support/UdpTestClient.h"

namespace {

using ReplayTest::CapturedDebug;
using ReplayTest::WaitFor;

const std::chrono::milliseconds kDeadline(10000);
constexpr int kReplayPort = 4400;

class TestServer : public UDPSocketServer {
  public:
    ~TestServer() override { StopReadThread(); }

    bool ProcessClientMessage(const char* data, int nBytes, ClientData& client,
                              bool isNewClient) override {
        const std::string text(data, static_cast<size_t>(nBytes));
        bool accepted = false;
        if (isNewClient && text.compare(0, 7, "accept:") == 0) {
            client.SetClientName(text.substr(7));
            accepted = true;
        } else if (isNewClient && text.compare(0, 7, "reject:") == 0) {
            client.SetClientName(text.substr(7));
        }
        m_handled.fetch_add(1);
        return accepted;
    }

    int Handled() const { return m_handled.load(); }

  private:
    std::atomic<int> m_handled{0};
};

using Client = ReplayTest::UdpTestClient;

class UDPSocketServerTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        m_server.reset(new TestServer);
        for (int attempt = 0; attempt < 50 && m_fd < 0; ++attempt) {
            m_ip = ReplayTest::RandomLoopbackAddress();
            m_server->SetBindAddress(m_ip);
            m_fd = m_server->Open(kReplayPort, "ignored", 7);
        }
        ASSERT_GE(m_fd, 0);
    }
    void TearDown() override {
        m_server.reset();
        TargetRootTest::TearDown();
    }

    void SendAndWait(const Client& client, const std::string& text) {
        const int target = m_server->Handled() + 1;
        ASSERT_TRUE(client.Send(m_ip, kReplayPort, text));
        ASSERT_TRUE(WaitFor([&] { return m_server->Handled() >= target; }, kDeadline));
    }
    std::vector<ClientData> Table() { return m_server->GetClientDataList().Snapshot(true); }

    std::unique_ptr<TestServer> m_server;
    std::string m_ip;
    int m_fd = -1;
};

TEST_F(UDPSocketServerTest, SecondLiveInstanceMarksTheKnownEntryError) {
    Client first, second;
    SendAndWait(first, "accept:nav");
    CapturedDebug debug;
    SendAndWait(second, "reject:nav");
    const std::vector<ClientData> table = Table();
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].GetPort(), first.Port());
    EXPECT_EQ(table[0].GetStatus(), ClientData::Error);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Multiple Instances of Client nav: port=" +
                                                       std::to_string(second.Port()) + " and " +
                                                       std::to_string(first.Port())),
              1);
}

TEST_F(UDPSocketServerTest, SendingRespectsStatusAndDisabledFlagAndDestructionEndsTheWaitAtOnce) {
    Client nav, gps;
    SendAndWait(nav, "accept:nav");
    SendAndWait(gps, "accept:gps");
    const auto other = static_cast<ClientData::ClientProtocol>(7);

    EXPECT_FALSE(m_server->Broadcast("x", 1, other).IsError());  // no client speaks it
    EXPECT_FALSE(m_server->Broadcast("all", 3, ClientData::eProtocolDefault).IsError());
    EXPECT_EQ(nav.Receive(), "all");
    EXPECT_EQ(gps.Receive(), "all");

    ASSERT_FALSE(m_server->SetClientEnabled("nav", false).IsError());
    EXPECT_FALSE(m_server->SendTo("nav", "skipped", -1, true).IsError());
    EXPECT_FALSE(m_server->SendTo("nav", "sent", -1, false).IsError());
    EXPECT_EQ(nav.Receive(), "sent");
    ASSERT_FALSE(m_server->SetClientEnabled("nav", true).IsError());

    // A sick client stops a broadcast after the clients before it.
    {
        ClientDataLock lock(true);
        m_server->GetClientDataList().FindByName("gps")->SetStatus(ClientData::Error);
    }
    EXPECT_TRUE(m_server->SendTo("gps", "x", -1, false).IsError());
    const ReplayError stopped = m_server->Broadcast("b", 1, ClientData::eProtocolDefault);
    EXPECT_TRUE(stopped.IsError());
    EXPECT_EQ(nav.Receive(), "b");
    EXPECT_EQ(gps.Receive(200), "");

    EXPECT_TRUE(m_server->SendTo("ghost", "x", -1, false).IsError());

    // The read thread's wait for a datagram (up to 5 s) ends at once.
    const auto before = std::chrono::steady_clock::now();
    m_server.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
}

}  // namespace
