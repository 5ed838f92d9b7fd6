#ifndef TESTS_SERVER_REPLAYRUNNERSUPPORT_H
#define TESTS_SERVER_REPLAYRUNNERSUPPORT_H

// What the replay runner's tests share: planned records, the clock a
// replay command sets, and a server on its own loopback address whose fake
// clients never report unless a test makes them.

#include <chrono>
#include <memory>
#include <string>

#include "libreplay/server/FileLogger.h"
#include "server/ReplayRunner.h"
#include "tests/server/LoopbackServer.h"
#include "tests/support/TestSupport.h"

namespace ReplayRunnerTestSupport {

using Clock = std::chrono::steady_clock;

inline int64_t Ms(Clock::duration duration) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

// A record as the plan holds it: without its line end.
inline ReplayServer::PlannedRecord Planned(const std::string& client, int64_t timeMs,
                                           unsigned int sequence) {
    ReplayServer::PlannedRecord record;
    record.client = client;
    record.timeMs = timeMs;
    record.sequence = sequence;
    record.record =
        ServerTest::DataRecord(client, timeMs, sequence, "item" + std::to_string(sequence));
    record.record.pop_back();
    return record;
}

// The log time a replay command sets the client's clock to; -1 without one.
inline int64_t ClockArgument(const std::string& command) {
    using ReplayCore::ReplayStateManager;
    ReplayStateManager::CommandArgsParser parser;
    std::string value;
    if (command.empty() || command[0] != '#' ||
        ReplayStateManager::GetStateFromCommand(command, parser) != ReplayCore::eStateReplay ||
        !parser.Get('l', value)) {
        return -1;
    }
    return ReplayCore::MSTime::MSTimeStruct(value).m_timeMilliseconds;
}

class ReplayRunnerFixture : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        m_server = ServerTest::StartLoopbackServer(ReplayServer::ServerSettings(), m_ip);
        ASSERT_NE(m_server, nullptr) << "no free loopback address";
        m_settings.serverLeadTimeMs = 30;
        m_settings.networkingLatencyMs = 40;
        m_settings.endGraceMs = 20;
        m_settings.clientWaitMs = 5000;
        // The fake clients report only where a test makes them: no pacing,
        // and no wait for their reports at the end.
        m_settings.pacing.window = 1000000;
        m_settings.deliveryWaitMs = 0;
    }
    void TearDown() override {
        m_server.reset();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    std::unique_ptr<ServerTest::FakeClient> Connect(const std::string& name) {
        std::unique_ptr<ServerTest::FakeClient> client(new ServerTest::FakeClient(m_ip));
        EXPECT_TRUE(client->Register(name)) << name;
        return client;
    }

    std::string m_ip;
    std::unique_ptr<ReplayServer::ReplayServer> m_server;
    ReplayServer::ReplaySettings m_settings;
};

}  // namespace ReplayRunnerTestSupport

#endif
