#ifndef TESTS_SERVER_LOOPBACKSERVER_H
#define TESTS_SERVER_LOOPBACKSERVER_H

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libreplay/server/ClientRecord.h"
#include "server/ReplayServer.h"
#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"
#include "tests/support/UdpTestClient.h"

namespace ServerTest {

inline std::string Block(const std::string& client, unsigned int sequence,
                         const std::vector<std::pair<int64_t, std::string>>& items) {
    std::string payload = items[0].second;
    for (size_t i = 1; i < items.size(); ++i) {
        payload += static_cast<char>(ReplayCore::kItemSeparator) +
                   ReplayCore::MSTime::MSTimeStruct(0, items[i].first).ToString() + ":" +
                   items[i].second;
    }
    return DataRecord(client, items[0].first, sequence, payload);
}

class LoopbackServerTest : public LoggerChannelTest {
  protected:
    void TearDown() override {
        m_server.reset();
        LoggerChannelTest::TearDown();
    }
    void StartServer(ReplayServer::ServerSettings settings = {}) {
        settings.port = 4400;
        for (int attempt = 0; attempt < 50 && m_server == nullptr; ++attempt) {
            m_ip = settings.bindAddress = ReplayTest::RandomLoopbackAddress();
            m_server.reset(new ReplayServer::ReplayServer(settings));
            if (!m_server->Start().IsOk()) {
                m_server.reset();
            }
        }
        ASSERT_NE(m_server, nullptr) << "no free loopback address";
    }

    std::string m_ip;
    std::unique_ptr<ReplayServer::ReplayServer> m_server;
};

class FakeClient {
  public:
    explicit FakeClient(const std::string& serverIp) : m_server(Address(serverIp, 4400)) {}

    // Announces `name` and forgets the server's answer; false when none came.
    bool Register(const std::string& name) {
        Send(StatusRecord(name, 1000, ""));
        const bool answered = m_socket.WaitForDatagrams(1, std::chrono::seconds(10));
        m_socket.Clear();
        return answered;
    }
    bool Send(const std::string& bytes) const { return m_socket.SendTo(m_server, bytes); }
    std::vector<ReplayTest::Datagram> Received() const { return m_socket.Datagrams(); }
    bool WaitFor(size_t count, std::chrono::milliseconds deadline) const {
        return m_socket.WaitForDatagrams(count, deadline);
    }

  private:
    sockaddr_in m_server;
    ReplayTest::FakeServer m_socket{true, 0};
};

}  // namespace ServerTest

#endif
