// `status --json` and `clients --json` through the command interpreter, with
// a real server and a client that registered over loopback.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "libreplay/server/FileLogger.h"
#include "server/ServerControl.h"
#include "tests/server/LoopbackServer.h"
#include "tests/support/TestSupport.h"

namespace {

namespace srv = ReplayServer;

class ServerStatusJsonTest : public ReplayTest::TargetRootTest {
  protected:
    void TearDown() override {
        m_control.reset();
        m_server.reset();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }

    std::string m_ip;
    std::unique_ptr<srv::ReplayServer> m_server;
    std::unique_ptr<srv::ServerControl> m_control;
};

TEST_F(ServerStatusJsonTest, StatusAndClientsAreOneJsonLineEach) {
    m_server = ServerTest::StartLoopbackServer(srv::ServerSettings(), m_ip);
    ASSERT_NE(m_server, nullptr);
    m_control.reset(
        new srv::ServerControl(*m_server, srv::ReplaySettings(), [](const std::string&) {}));
    ServerTest::FakeClient gps(m_ip);
    ASSERT_TRUE(gps.Register("gps"));

    const std::string clients = m_control->Execute("clients --json");
    ASSERT_EQ(clients.find('\n'), clients.size() - 1) << clients;
    const nlohmann::json table = nlohmann::json::parse(clients);
    ASSERT_EQ(table["clients"].size(), 1u) << clients;
    EXPECT_EQ(table["clients"][0]["name"], "gps");
    EXPECT_GT(table["clients"][0]["port"].get<int>(), 0);
    EXPECT_GE(table["clients"][0]["received"].get<int>(), 1);
    // The registration is the one record the client sent.
    EXPECT_EQ(table["clients"][0]["bytes"].get<size_t>(),
              ServerTest::StatusRecord("gps", 1000, "").size());

    const std::string status = m_control->Execute("status --json");
    ASSERT_EQ(status.find('\n'), status.size() - 1) << status;
    const nlohmann::json state = nlohmann::json::parse(status);
    EXPECT_EQ(state["state"], "Stopped");
    EXPECT_EQ(state["job_running"], false);
    EXPECT_GE(state["counters"]["datagrams"].get<int>(), 1);
    EXPECT_EQ(state["clients"], table["clients"]);

    // Anything else after the command stays an error.
    EXPECT_EQ(m_control->Execute("status --xml").compare(0, 6, "error:"), 0);
}

}  // namespace
