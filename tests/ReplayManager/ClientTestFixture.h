#ifndef TESTS_REPLAYMANAGER_CLIENTTESTFIXTURE_H
#define TESTS_REPLAYMANAGER_CLIENTTESTFIXTURE_H

// Every test case runs in its own process, so the process's one client is fresh in each.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "ReplayManager/ReplayClientInternal.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "libreplay/ReplayCore.h"
#include "tests/support/ClientSetup.h"
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"

namespace ClientTest {

using namespace std::chrono_literals;

inline std::atomic<int64_t> g_nowMs{100000};
inline int64_t InjectedClock() {
    return g_nowMs.load(std::memory_order_relaxed);
}

// The header up to "!1 <sequence>:", the items, the times of the items after the first.
struct Block {
    std::string header;
    std::vector<std::string> items;
    std::vector<std::string> itemTimes;
};

inline Block SplitBlock(const std::string& datagram) {
    Block block;
    ReplayCore::LogClientRecord fields;
    EXPECT_TRUE(ReplayCore::ParseLogClientRecord(datagram, fields)) << datagram;
    block.header = datagram.substr(0, fields.payloadStart);
    ReplayCore::ForEachLogItem(datagram, fields, [&](int64_t timeMs, const char* data, size_t n) {
        if (!block.items.empty()) {
            block.itemTimes.push_back(ReplayCore::LogFormat::FormatRecordTime(timeMs));
        }
        block.items.emplace_back(data, n);
    });
    return block;
}

inline bool ChecksumValid(const std::string& datagram) {
    return ReplayCore::CheckSumValid(datagram.data(), static_cast<unsigned int>(datagram.size()));
}

class ClientFixture : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        ASSERT_TRUE(m_server.IsBound());
        ReplayTest::PrepareReplayClient(m_server.Address(), ExtraOptions());
        ReplayCore::SetClockSourceForTesting(&InjectedClock);
        g_nowMs = 100000;
    }
    void TearDown() override {
        ReplayCore::SetClockSourceForTesting(nullptr);
        TargetRootTest::TearDown();
    }
    virtual std::string ExtraOptions() { return ""; }

    void Connect(ReplayCore::ReplayState state = ReplayCore::eStateRecord,
                 unsigned int dataType = kDataTypeAsciiText) {
        g_clientName = "Tester";
        ASSERT_GT(g_replayClient.Open(m_server.Address().c_str(), 4400), 0);
        {
            CMutexScopedLock lock(clientWriteMutex);
            g_UDPSendBuffer.InitializeMemoryBuffer(ReplayCore::MSTime::CurrentTimeMS(), dataType,
                                                   1);
        }
        g_clientStateManager.SetStateForTesting(state);
    }

    // A marker sent last is waited for: one socket's datagrams arrive in order on loopback.
    std::vector<std::string> Received() {
        const std::string marker = "sync" + std::to_string(++m_syncs);
        EXPECT_GT(ReplayClient::SendClientMessage(marker.c_str(),
                                                  static_cast<unsigned int>(marker.size())),
                  0);
        std::vector<std::string> texts;
        EXPECT_TRUE(ReplayTest::WaitFor(
            [&] {
                texts.clear();
                for (const ReplayTest::Datagram& datagram : m_server.Datagrams()) {
                    if (datagram.bytes.find(":" + marker) != std::string::npos) {
                        return true;
                    }
                    if (datagram.bytes.find(":sync") == std::string::npos) {
                        texts.push_back(datagram.bytes);
                    }
                }
                return false;
            },
            5s));
        return texts;
    }

    void Handle(const std::string& datagram) {
        clientReadThread.udpClientMessageHandler(
            reinterpret_cast<const unsigned char*>(datagram.data()),
            static_cast<int>(datagram.size()));
    }

    int FlushBlock() {
        CMutexScopedLock lock(clientWriteMutex);
        return g_UDPSendBuffer.SendDataBlock();
    }

    ReplayTest::FakeServer m_server;
    int m_syncs = 0;
};

}  // namespace ClientTest

#endif
