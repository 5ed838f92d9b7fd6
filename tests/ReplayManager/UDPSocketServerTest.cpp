#include "libreplay/UDPSocketServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "libreplay/FileLogger.h"
#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::CapturedDebug;
using ReplayTest::WaitFor;
using ServerTest::Address;

const std::chrono::milliseconds kDeadline(10000);
constexpr int kReplayPort = 4400;
// Not a local address: binding it fails.
const char* const kForeignAddress = "192.0.2.1";

// Names new clients from datagrams "accept:<name>" (accepted) and
// "reject:<name>" (named, not accepted); anything else leaves them unnamed.
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
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_newClientFlags.push_back(isNewClient);
        }
        m_handled.fetch_add(1);
        return accepted;
    }

    int Handled() const { return m_handled.load(); }
    std::vector<bool> NewClientFlags() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_newClientFlags;
    }

  private:
    std::atomic<int> m_handled{0};
    mutable std::mutex m_mutex;
    std::vector<bool> m_newClientFlags;
};

class Client {
  public:
    // Binds `ip`:`port` (port 0: any free one).
    explicit Client(const std::string& ip = "127.0.0.1", int port = 0) {
        m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in local = Address(ip, port);
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
            close(m_fd);
            m_fd = -1;
            return;
        }
        socklen_t length = sizeof local;
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length);
        m_port = ntohs(local.sin_port);
    }
    ~Client() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    bool Bound() const { return m_fd >= 0; }
    int Port() const { return m_port; }
    void Send(const std::string& serverIp, const std::string& text) const {
        const sockaddr_in to = Address(serverIp, kReplayPort);
        ASSERT_EQ(sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                         sizeof to),
                  static_cast<ssize_t>(text.size()));
    }
    // The next datagram, or "" when none comes within the deadline.
    std::string Receive(int timeoutMs = 10000) const {
        pollfd waiting{m_fd, POLLIN, 0};
        if (poll(&waiting, 1, timeoutMs) != 1) {
            return "";
        }
        char buffer[4096];
        const ssize_t got = recv(m_fd, buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
    }

  private:
    int m_fd = -1;
    int m_port = 0;
};

std::string RandomLoopback(std::mt19937& random) {
    std::uniform_int_distribution<int> part(1, 254);
    return "127." + std::to_string(part(random)) + "." + std::to_string(part(random)) + "." +
           std::to_string(part(random));
}

class UDPSocketServerTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        m_random.seed(std::random_device()());
        m_server.reset(new TestServer);
        // Parallel tests each take a loopback address of their own.
        for (int attempt = 0; attempt < 50 && m_fd < 0; ++attempt) {
            m_ip = RandomLoopback(m_random);
            m_server->SetBindAddress(m_ip);
            m_fd = m_server->Open(kReplayPort, "ignored", 7);
        }
        ASSERT_GE(m_fd, 0);
    }
    void TearDown() override {
        m_server.reset();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }

    // Sends and waits until the server's handler has run for it; the table
    // is then final for that datagram once its lock is taken.
    void SendAndWait(const Client& client, const std::string& text) {
        const int target = m_server->Handled() + 1;
        client.Send(m_ip, text);
        ASSERT_TRUE(WaitFor([&] { return m_server->Handled() >= target; }, kDeadline));
    }
    std::vector<ClientData> Table() { return m_server->GetClientDataList().Snapshot(true); }
    ClientData::ClientStatus StatusOf(const std::string& name) {
        ClientDataLock lock(true);
        return m_server->GetClientDataList().FindByName(name)->GetStatus();
    }

    std::mt19937 m_random;
    std::unique_ptr<TestServer> m_server;
    std::string m_ip;
    int m_fd = -1;
};

TEST_F(UDPSocketServerTest, NewSendersAreAddedOnlyWhenAccepted) {
    CapturedDebug debug;
    Client client;
    SendAndWait(client, "anonymous hello");
    EXPECT_TRUE(Table().empty());

    SendAndWait(client, "accept:nav");
    std::vector<ClientData> table = Table();
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].GetClientName(), "nav");
    EXPECT_EQ(table[0].GetPort(), client.Port());
    EXPECT_EQ(table[0].GetStatus(), ClientData::Running);
    EXPECT_EQ(
        debug.Count("Adding New Client: port=" + std::to_string(client.Port()) + "; name=nav"), 1);

    // Later datagrams reach the handler as a known client.
    SendAndWait(client, "accept:other");
    table = Table();
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].GetClientName(), "nav");
    EXPECT_EQ(table[0].GetMessagesReceived(), 2u);
    EXPECT_EQ(m_server->NewClientFlags(), (std::vector<bool>{true, true, false}));
    EXPECT_EQ(UDPServerReadThread::m_clientDataLocked.load(), 0);
}

TEST_F(UDPSocketServerTest, RestartedClientReplacesItsFailedEntry) {
    ServerTest::ManualClock clock(1000000);
    Client first, other, restarted;
    SendAndWait(first, "accept:nav");
    SendAndWait(other, "accept:other");
    // Silence beyond 18 s; the next datagram's status update fails nav.
    clock.Advance(18001);
    SendAndWait(other, "still here");
    ASSERT_EQ(StatusOf("nav"), ClientData::Failed);

    CapturedDebug debug;
    SendAndWait(restarted, "reject:nav");
    const std::vector<ClientData> table = Table();
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].GetClientName(), "other");
    EXPECT_EQ(table[1].GetClientName(), "nav");
    EXPECT_EQ(table[1].GetPort(), restarted.Port());
    EXPECT_EQ(table[1].GetStatus(), ClientData::Running);
    EXPECT_EQ(debug.Count("Adding Entry for Restarted Client: port=" +
                          std::to_string(restarted.Port()) + "; name=nav"),
              1);
}

TEST_F(UDPSocketServerTest, SecondLiveInstanceMarksTheKnownEntryError) {
    Client first, second, stranger;
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

    // A named but refused sender with a new name is still added.
    SendAndWait(stranger, "reject:gps");
    EXPECT_EQ(Table().size(), 2u);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Failed to Add Entry for Restarted Client gps"),
              1);
}

TEST_F(UDPSocketServerTest, SendersSharingAPortShareAnEntry) {
    std::unique_ptr<Client> first, second;
    for (int attempt = 0; attempt < 50 && !(second && second->Bound()); ++attempt) {
        first.reset(new Client(RandomLoopback(m_random)));
        if (first->Bound()) {
            second.reset(new Client(RandomLoopback(m_random), first->Port()));
        }
    }
    ASSERT_TRUE(second && second->Bound());
    SendAndWait(*first, "accept:nav");
    SendAndWait(*second, "accept:gps");
    const std::vector<ClientData> table = Table();
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].GetClientName(), "nav");
    EXPECT_EQ(table[0].GetMessagesReceived(), 2u);
}

TEST_F(UDPSocketServerTest, SendingRespectsStatusAndDisabledFlag) {
    Client nav, gps;
    SendAndWait(nav, "accept:nav");
    SendAndWait(gps, "accept:gps");
    const auto other = static_cast<ClientData::ClientProtocol>(7);

    EXPECT_FALSE(m_server->Broadcast("x", 1, other).IsError());
    EXPECT_FALSE(m_server->Broadcast("all", 3, ClientData::eProtocolDefault).IsError());
    EXPECT_EQ(nav.Receive(), "all");
    EXPECT_EQ(gps.Receive(), "all");

    // Disabled: skipped on request, otherwise sent as usual.
    ASSERT_FALSE(m_server->SetClientEnabled("nav", false).IsError());
    EXPECT_FALSE(m_server->SendTo("nav", "skipped", -1, true).IsError());
    EXPECT_FALSE(m_server->SendTo("nav", "sent", -1, false).IsError());
    EXPECT_EQ(nav.Receive(), "sent");
    ASSERT_FALSE(m_server->SetClientEnabled("nav", true).IsError());
    EXPECT_EQ(StatusOf("nav"), ClientData::Running);

    // Sequence numbers are checked; a gap is reported and counted.
    ReplayErrorManager::Get().ClearErrors();
    EXPECT_FALSE(m_server->SendTo("gps", "s1", 1, false).IsError());
    EXPECT_FALSE(m_server->SendTo("gps", "s4", 4, false).IsError());
    EXPECT_NE(ReplayErrorManager::Get().GetLastError().GetText().find(
                  "gps: Sequence Number 4 unexpected following 1"),
              std::string::npos);
    EXPECT_EQ(gps.Receive(), "s1");
    EXPECT_EQ(gps.Receive(), "s4");

    // A sick client is not sent to, and stops a broadcast after the clients
    // before it.
    {
        ClientDataLock lock(true);
        m_server->GetClientDataList().FindByName("gps")->SetStatus(ClientData::Error);
    }
    EXPECT_EQ(m_server->SendTo("gps", "x", -1, false).GetText(),
              "Error UDPSocketServer::SendTo: Attempt to write to failed client gps");
    EXPECT_EQ(m_server->SetClientEnabled("gps", true).GetText(),
              "Error UDPSocketServer::SetClientEnabled: Attempt to write to failed client gps");
    const ReplayError stopped = m_server->Broadcast("b", 1, ClientData::eProtocolDefault);
    EXPECT_EQ(stopped.GetText(), "Not Sending to Sick Client Client port=" +
                                     std::to_string(gps.Port()) + "; Name = gps");
    EXPECT_EQ(nav.Receive(), "b");
    EXPECT_EQ(gps.Receive(200), "");

    EXPECT_EQ(m_server->SendTo("ghost", "x", -1, false).GetText(),
              "Error UDPSocketServer::SendTo: Attempt to write to non-existent client ghost");

    for (const ClientData& client : Table()) {
        EXPECT_EQ(client.GetPacketsSent(), 3u) << client.GetClientName();
    }
}

TEST_F(UDPSocketServerTest, OpenKeepsTheFirstSocketAndReportsFailures) {
    EXPECT_EQ(m_server->GetServerAddress(), m_ip);
    EXPECT_EQ(m_server->GetServerValue(), 7);
    EXPECT_EQ(m_server->Open(kReplayPort, nullptr, 0), m_fd);
    EXPECT_NE(ReadTargetFile("/tmp/ReplayLog.txt")
                  .find("INVALID_SOCKET == m_socket at line 548 of ReplayManager/UDPSockets"),
              std::string::npos);

    TestServer unbound;
    EXPECT_EQ(unbound.GetServerAddress(), "127.0.0.1");
    unbound.SetBindAddress(kForeignAddress);
    EXPECT_EQ(unbound.Open(kReplayPort, nullptr, 0), -1);
    EXPECT_EQ(unbound.Socket(), -1);
    EXPECT_NE(ReadTargetFile("/tmp/ReplayLog.txt").find("Invalid Socket for Port 4400"),
              std::string::npos);
}

TEST_F(UDPSocketServerTest, DestructionEndsAWaitingReadThreadAtOnce) {
    Client client;
    SendAndWait(client, "accept:nav");
    // The read thread is now waiting for the next datagram, for up to 5 s.
    const auto before = std::chrono::steady_clock::now();
    m_server.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
}

}  // namespace
