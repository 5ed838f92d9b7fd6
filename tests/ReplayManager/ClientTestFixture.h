#ifndef TESTS_REPLAYMANAGER_CLIENTTESTFIXTURE_H
#define TESTS_REPLAYMANAGER_CLIENTTESTFIXTURE_H

// Shared set-up of the client tests: a fake server, the client's options
// pointing at it, an injected clock, and helpers that read the client's
// datagrams back. Every test case runs in its own process, so the process's
// one client is fresh in each.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "ReplayManager/ReplayClientInternal.h"
#include "libreplay/server/ClientRecord.h"
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

// The text between the header's last ':' and the trailer, cut at the 0xDE
// separators, with the item times dropped from all but the first item.
struct Block {
    std::string header;  // up to and including "!1 <sequence>:"
    std::vector<std::string> items;
    std::vector<std::string> itemTimes;  // of the second item on
};

inline Block SplitBlock(const std::string& datagram) {
    Block block;
    const std::string body = datagram.substr(0, datagram.size() - ReplayCore::kChecksumFieldLength);
    const size_t marker = body.find(":!1 ");
    const size_t start = body.find(':', marker + 1) + 1;
    block.header = body.substr(0, start);
    size_t position = start;
    bool first = true;
    while (true) {
        const size_t next = body.find(static_cast<char>(ReplayCore::kItemSeparator), position);
        std::string item =
            body.substr(position, next == std::string::npos ? std::string::npos : next - position);
        if (!first) {
            const size_t colon = item.find(':');
            block.itemTimes.push_back(item.substr(0, colon));
            item = item.substr(colon + 1);
        }
        block.items.push_back(item);
        first = false;
        if (next == std::string::npos) {
            break;
        }
        position = next + 1;
    }
    return block;
}

inline bool ChecksumValid(const std::string& datagram) {
    return ReplayCore::CheckSumValid(datagram.data(), static_cast<unsigned int>(datagram.size()));
}

// The client connected to a fake server, without its threads, recording.
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

    // Opens the connection and starts the first block as initialisation
    // does, then switches to `state`.
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

    // Every datagram the client has sent so far: a marker message is sent
    // last and waited for (one socket's datagrams arrive in order on
    // loopback).
    std::vector<std::string> Received() {
        const std::string marker = ":sync" + std::to_string(++m_syncs);
        EXPECT_GT(ReplayClient::SendClientMessage(marker.c_str() + 1,
                                                  static_cast<unsigned int>(marker.size() - 1)),
                  0);
        std::vector<ReplayTest::Datagram> datagrams;
        EXPECT_TRUE(ReplayTest::WaitFor(
            [&] {
                datagrams = m_server.Datagrams();
                for (const ReplayTest::Datagram& datagram : datagrams) {
                    if (datagram.bytes.find(marker) != std::string::npos) {
                        return true;
                    }
                }
                return false;
            },
            5s));
        std::vector<std::string> texts;
        for (const ReplayTest::Datagram& datagram : datagrams) {
            if (datagram.bytes.find(":sync") == std::string::npos) {
                texts.push_back(datagram.bytes);
            }
        }
        return texts;
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
